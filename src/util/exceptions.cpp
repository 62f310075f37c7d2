#include "util/exceptions.h"

#include <array>
#include <sstream>

#include "platform/dshow/error_text.h"
#include "util/error_codes.h"

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
