#include "platform/dshow/vfw_errors.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/com/com.h"

namespace {

struct ErrorText {
  HRESULT code;
  std::string_view text;
};

constexpr ErrorText kErrorTexts[] = {
    {E_NOTIMPL, "Not implemented."},
    {E_NOINTERFACE, "No such interface is supported."},
    {E_POINTER, "Invalid pointer."},
    {E_ABORT, "The operation was aborted."},
    {E_FAIL, "Unspecified error."},
    {E_UNEXPECTED, "Unexpected failure."},
    {E_ACCESSDENIED, "Access is denied."},
    {E_OUTOFMEMORY, "Not enough memory is available to complete this operation."},
    {E_INVALIDARG, "An argument is invalid."},
    {CLASS_E_NOAGGREGATION, "The class does not support aggregation."},
    {CLASS_E_CLASSNOTAVAILABLE, "The class is not available in this library."},
    {REGDB_E_CLASSNOTREG, "The class is not registered."},
    {VFW_S_NO_MORE_ITEMS, "The list holds no more items."},
    {VFW_S_DUPLICATE_NAME, "The filter was added under a changed name, since its name was taken."},
    {VFW_S_STATE_INTERMEDIATE, "The state change is not complete yet."},
    {VFW_S_NO_STOP_TIME, "The sample has a start time but no stop time."},
    {VFW_E_INVALIDMEDIATYPE, "The media type is invalid."},
    {VFW_E_ENUM_OUT_OF_SYNC, "The enumerator is out of date: the list has changed."},
    {VFW_E_ALREADY_CONNECTED, "At least one of the pins is already connected."},
    {VFW_E_FILTER_ACTIVE, "The operation needs a stopped filter, and the filter is active."},
    {VFW_E_NO_TYPES, "One of the pins offers no media types."},
    {VFW_E_NO_ACCEPTABLE_TYPES, "The pins have no media type in common."},
    {VFW_E_INVALID_DIRECTION, "Two pins of the same direction cannot be connected."},
    {VFW_E_NOT_CONNECTED, "The pin is not connected."},
    {VFW_E_NO_ALLOCATOR, "No sample buffer allocator is available."},
    {VFW_E_RUNTIME_ERROR, "A run-time error occurred."},
    {VFW_E_BUFFER_OVERFLOW, "The data does not fit into the buffer."},
    {VFW_E_BADALIGN, "The requested alignment is not valid."},
    {VFW_E_ALREADY_COMMITTED, "The allocator is committed: its properties cannot change now."},
    {VFW_E_BUFFERS_OUTSTANDING, "One or more buffers are still in use."},
    {VFW_E_NOT_COMMITTED, "The allocator is not committed."},
    {VFW_E_SIZENOTSET, "The allocator has no buffer size or count."},
    {VFW_E_NO_CLOCK, "The operation needs a reference clock, and there is none."},
    {VFW_E_NOT_FOUND, "The object was not found."},
    {VFW_E_CANNOT_CONNECT, "No way to connect these pins was found."},
    {VFW_E_CIRCULAR_GRAPH, "The filter graph would become circular."},
    {VFW_E_NOT_STOPPED, "The operation needs a stopped graph."},
    {VFW_E_WRONG_STATE, "The operation is not possible in this state."},
    {VFW_E_START_TIME_AFTER_END, "The sample starts after it ends."},
    {VFW_E_TYPE_NOT_ACCEPTED, "The media type is not accepted."},
    {VFW_E_SAMPLE_REJECTED, "The sample was rejected."},
    {VFW_E_DUPLICATE_NAME, "A filter of that name is already in the graph."},
    {VFW_E_TIMEOUT, "The time for the operation has run out."},
    {VFW_E_SAMPLE_TIME_NOT_SET, "The sample carries no time stamps."},
    {VFW_E_MEDIA_TIME_NOT_SET, "The sample carries no media times."},
    {VFW_E_NOT_IN_GRAPH, "The object is not in a filter graph."},
};

// System errors that travel as HRESULTs of facility Win32.
constexpr ErrorText kSystemTexts[] = {
    {2, "The system cannot find the file specified."},
    {3, "The system cannot find the path specified."},
    {4, "The system cannot open the file: too many are open."},
    {8, "Not enough memory resources are available to process this command."},
    {32, "The file is in use by another process."},
    {80, "The file exists."},
    {112, "There is not enough space on the disk."},
    {123, "The file name, directory name, or volume label syntax is incorrect."},
    {126, "The specified module could not be found."},
    {127, "The specified procedure could not be found."},
    {1009, "The registry is damaged."},
};

std::string_view FindText(HRESULT hr) {
  for (const ErrorText& entry : kErrorTexts) {
    if (entry.code == hr) {
      return entry.text;
    }
  }
  for (const ErrorText& entry : kSystemTexts) {
    if (HRESULT_FROM_WIN32(static_cast<DWORD>(entry.code)) == hr) {
      return entry.text;
    }
  }
  return {};
}

}  // namespace

DWORD AMGetErrorTextA(HRESULT hr, char* buffer, DWORD capacity) {
  if (buffer == nullptr || capacity == 0) {
    return 0;
  }
  const std::string_view text = FindText(hr);
  const std::size_t length = std::min<std::size_t>(text.size(), capacity - 1);
  std::copy_n(text.begin(), length, buffer);
  buffer[length] = '\0';
  return static_cast<DWORD>(length);
}
