// Texts for result codes.
#pragma once

#include "platform/com/types.h"

// Writes the English text of hr, cut to capacity - 1 characters and terminated, into buffer and
// returns its length; 0 (and an empty text) when no text is known. Callable from any thread.
DWORD AMGetErrorTextA(HRESULT hr, char* buffer, DWORD capacity);
