// The system's own error numbers, as they stand in messages and result codes.
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

// The number that stands for an errno value; one without a counterpart is a general failure, 0 is
// 0.
std::uint32_t SystemErrorNumber(int errnoValue);
// What a failure with a file means, for a person: "no such file", "access denied".
const char* FileErrorText(std::uint32_t number);

}  // namespace os
