#include <cerrno>

#include "platform/os/error_numbers.h"

namespace os {

std::uint32_t SystemErrorNumber(int errnoValue) {
  switch (errnoValue) {
    case 0:
      return 0;
    case ENOENT:
      return kErrorFileNotFound;
    case EMFILE:
    case ENFILE:
      return kErrorTooManyOpenFiles;
    case EACCES:
    case EPERM:
    case EROFS:
      return kErrorAccessDenied;
    case ENOMEM:
      return kErrorNotEnoughMemory;
    case ENXIO:
    case ENODEV:
    case ENOMEDIUM:
      return kErrorNotReady;
    case EBUSY:
    case ETXTBSY:
      return kErrorSharingViolation;
    case EEXIST:
      return kErrorFileExists;
    case EINVAL:
      return kErrorInvalidParameter;
    case ENOSPC:
    case EDQUOT:
      return kErrorDiskFull;
    case ENAMETOOLONG:
    case EILSEQ:
      return kErrorInvalidName;
    case ENOTEMPTY:
      return kErrorDirNotEmpty;
    case ENOTDIR:
      return kErrorDirectory;
    default:
      return kErrorGeneralFailure;
  }
}

}  // namespace os
