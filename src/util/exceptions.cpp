#include "util/exceptions.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>

#include "platform/dshow/vfw_errors.h"

namespace {

struct ErrorMessage {
  std::uint32_t code;
  const char* message;
};

// In ascending order of the code, for the binary search.
constexpr ErrorMessage kErrorCodeTable[] = {
    {0x80250000, "No error"},
    {0x80250001, "Internal error"},
    {0x80250002, "Video PID not found"},
    {0x80250003, "Audio PID not found"},
    {0x80250004, "Teletext PID not found"},
    {0x80250005, "DVB-Subtitle PID not found"},
    {0x80250006, "SCTE-35 PID not found"},
    {0x8025000D, "Invalid input resolution"},
    {0x8025000F, "Output audio bitrate exceeds input bitrate"},
    {0x80250010, "KLV PID not found"},
    {0x80250020, "Source configuration error"},
    {0x80250021, "No picture found"},
    {0x80250022, "SDI board not found"},
    {0x80250023, "Selected SDI port number is not valid"},
    {0x80250024, "No slate found"},
    {0x80250025, "No logo found"},
    {0x80250026, "Bad picture format"},
    {0x80250027, "Bad slate format"},
    {0x80250028, "Bad logo format"},
    {0x80250029, "Logo ftp file server unreachable"},
    {0x8025002A, "Slate ftp file server unreachable"},
    {0x8025002B, "Input file not found"},
    {0x8025002C, "Input audio format not supported"},
    {0x8025002D, "Manifest not found"},
    {0x8025002E, "Manifest does not parse"},
    {0x8025002F, "Video not found"},
    {0x80250030, "Audio not found"},
    {0x80250031,
     "Input streams are not in mezzanine format. You shall configure fallback settings manually."},
    {0x80250032, "Input folder unreachable"},
    {0x80250033, "Output folder unreachable"},
    {0x80250040, "Selected framerate is invalid"},
    {0x80250041, "Selected resolution is invalid"},
    {0x80250042, "Selected output format is invalid"},
    {0x80250060, "Video decoder alert: input cannot be decoded."},
    {0x80250080, "Unable to establish a connection to the server"},
    {0x80250081, "The specified push template is invalid"},
    {0x80250082, "The specified push publishing point is invalid"},
    {0x80250083, "The request could not be understood by the server"},
    {0x80250084, "The network sink failed to write data to the network"},
    {0x80250085, "The Windows Media server is denying access (Check Log&Pwd)"},
    {0x80250086, "Windows Media DRM Configuration Error"},
    {0x80250087, "The port number specified is already in use"},
    {0x80250088, "Only one usage of input address (protocol/network address/port) is permitted."},
    {0x80250089, "The SDI output is already in use"},
    {0x8025008A, "Could not get the NICs list"},
    {0x8025008B, "Could not get the IP address table"},
    {0x8025008C, "Some stream names used for RTMP connection are the same"},
};
static_assert(std::is_sorted(std::begin(kErrorCodeTable), std::end(kErrorCodeTable),
                             [](const ErrorMessage& a, const ErrorMessage& b) {
                               return a.code < b.code;
                             }));

}  // namespace

const char* LookupErrorMessage(HRESULT code) {
  const auto wanted = static_cast<std::uint32_t>(code);
  const auto* const found = std::lower_bound(
      std::begin(kErrorCodeTable), std::end(kErrorCodeTable), wanted,
      [](const ErrorMessage& row, std::uint32_t value) { return row.code < value; });
  return found != std::end(kErrorCodeTable) && found->code == wanted ? found->message : nullptr;
}

const char* COMException::what() const noexcept {
  try {
    BuildMessage();
    return fullText_.c_str();
  } catch (const std::exception&) {
    return "COM Error (no memory for its text)";
  }
}

const std::string& COMException::BuildMessage() const {
  std::ostringstream text;
  if (const char* const product = LookupErrorMessage(code_)) {
    text << "Tavrel Error ";
    message_ = product;
  } else {
    text << "COM Error ";
    std::array<char, 160> buffer{};
    const DWORD length = AMGetErrorTextA(code_, buffer.data(), static_cast<DWORD>(buffer.size()));
    message_ = length == 0 ? "Invalid error code" : std::string(buffer.data(), length);
  }
  text << std::hex << static_cast<std::uint32_t>(code_) << ": " << message_;
  fullText_ = text.str();
  return message_;
}
