// Result codes of DirectShow, and texts for result codes.
#pragma once

#include "platform/com/com.h"

inline constexpr HRESULT VFW_S_NO_MORE_ITEMS = 0x00040103;
inline constexpr HRESULT VFW_S_DUPLICATE_NAME = 0x0004022D;
inline constexpr HRESULT VFW_S_STATE_INTERMEDIATE = 0x00040237;
inline constexpr HRESULT VFW_S_NO_STOP_TIME = 0x00040270;

inline constexpr HRESULT VFW_E_INVALIDMEDIATYPE = MakeHresult(0x80040200);
inline constexpr HRESULT VFW_E_ENUM_OUT_OF_SYNC = MakeHresult(0x80040203);
inline constexpr HRESULT VFW_E_ALREADY_CONNECTED = MakeHresult(0x80040204);
inline constexpr HRESULT VFW_E_FILTER_ACTIVE = MakeHresult(0x80040205);
inline constexpr HRESULT VFW_E_NO_TYPES = MakeHresult(0x80040206);
inline constexpr HRESULT VFW_E_NO_ACCEPTABLE_TYPES = MakeHresult(0x80040207);
inline constexpr HRESULT VFW_E_INVALID_DIRECTION = MakeHresult(0x80040208);
inline constexpr HRESULT VFW_E_NOT_CONNECTED = MakeHresult(0x80040209);
inline constexpr HRESULT VFW_E_NO_ALLOCATOR = MakeHresult(0x8004020A);
inline constexpr HRESULT VFW_E_RUNTIME_ERROR = MakeHresult(0x8004020B);
inline constexpr HRESULT VFW_E_BUFFER_OVERFLOW = MakeHresult(0x8004020D);
inline constexpr HRESULT VFW_E_BADALIGN = MakeHresult(0x8004020E);
inline constexpr HRESULT VFW_E_ALREADY_COMMITTED = MakeHresult(0x8004020F);
inline constexpr HRESULT VFW_E_BUFFERS_OUTSTANDING = MakeHresult(0x80040210);
inline constexpr HRESULT VFW_E_NOT_COMMITTED = MakeHresult(0x80040211);
inline constexpr HRESULT VFW_E_SIZENOTSET = MakeHresult(0x80040212);
inline constexpr HRESULT VFW_E_NO_CLOCK = MakeHresult(0x80040213);
inline constexpr HRESULT VFW_E_NOT_FOUND = MakeHresult(0x80040216);
inline constexpr HRESULT VFW_E_CANNOT_CONNECT = MakeHresult(0x80040217);
inline constexpr HRESULT VFW_E_CIRCULAR_GRAPH = MakeHresult(0x80040231);
inline constexpr HRESULT VFW_E_NOT_STOPPED = MakeHresult(0x80040224);
inline constexpr HRESULT VFW_E_WRONG_STATE = MakeHresult(0x80040227);
inline constexpr HRESULT VFW_E_START_TIME_AFTER_END = MakeHresult(0x80040228);
inline constexpr HRESULT VFW_E_TYPE_NOT_ACCEPTED = MakeHresult(0x8004022A);
inline constexpr HRESULT VFW_E_SAMPLE_REJECTED = MakeHresult(0x8004022B);
inline constexpr HRESULT VFW_E_DUPLICATE_NAME = MakeHresult(0x8004022D);
inline constexpr HRESULT VFW_E_TIMEOUT = MakeHresult(0x8004022E);
inline constexpr HRESULT VFW_E_SAMPLE_TIME_NOT_SET = MakeHresult(0x80040249);
inline constexpr HRESULT VFW_E_MEDIA_TIME_NOT_SET = MakeHresult(0x80040251);
inline constexpr HRESULT VFW_E_NOT_IN_GRAPH = MakeHresult(0x8004025F);

// Writes the English text of hr, cut to capacity - 1 characters and terminated, into buffer and
// returns its length; 0 (and an empty text) when no text is known. Callable from any thread.
DWORD AMGetErrorTextA(HRESULT hr, char* buffer, DWORD capacity);
