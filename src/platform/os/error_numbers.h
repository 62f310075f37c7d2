// The system's own error numbers, as messages and result codes use them.
#pragma once

#include <cstdint>

namespace os {

inline constexpr std::uint32_t kErrorFileNotFound = 2;
inline constexpr std::uint32_t kErrorPathNotFound = 3;
inline constexpr std::uint32_t kErrorTooManyOpenFiles = 4;
inline constexpr std::uint32_t kErrorAccessDenied = 5;
inline constexpr std::uint32_t kErrorNotEnoughMemory = 8;
inline constexpr std::uint32_t kErrorNotReady = 21;
inline constexpr std::uint32_t kErrorGeneralFailure = 31;
inline constexpr std::uint32_t kErrorSharingViolation = 32;
inline constexpr std::uint32_t kErrorFileExists = 80;
inline constexpr std::uint32_t kErrorInvalidParameter = 87;
inline constexpr std::uint32_t kErrorDiskFull = 112;
inline constexpr std::uint32_t kErrorInvalidName = 123;
inline constexpr std::uint32_t kErrorDirNotRoot = 144;
inline constexpr std::uint32_t kErrorDirNotEmpty = 145;
inline constexpr std::uint32_t kErrorAlreadyExists = 183;
inline constexpr std::uint32_t kErrorDirectory = 267;
inline constexpr std::uint32_t kErrorBadRegistry = 1009;

// The number of an errno value: kErrorGeneralFailure for one without a counterpart, 0 for 0.
std::uint32_t SystemErrorNumber(int errnoValue);
// The text of a file error for the operator: "no such file", "access denied".
const char* FileErrorText(std::uint32_t number);

}  // namespace os
