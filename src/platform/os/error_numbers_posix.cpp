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

const char* FileErrorText(std::uint32_t number) {
  switch (number) {
    case kErrorFileNotFound:
      return "no such file";
    case kErrorPathNotFound:
      return "its folder does not exist";
    case kErrorTooManyOpenFiles:
      return "too many files are open";
    case kErrorAccessDenied:
      return "access denied";
    case kErrorSharingViolation:
      return "it is in use";
    case kErrorDiskFull:
      return "the disk is full";
    case kErrorInvalidName:
      return "the name is not valid";
    case kErrorDirectory:
      return "a part of its path is no folder";
    default:
      return "it cannot be used as a file";
  }
}

}  // namespace os
