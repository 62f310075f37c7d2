// The product line's own error codes (facility 0x25) and their messages.
#pragma once

#include "platform/com/hresult.h"

// The message of a product code, or null when the code is not one of ours. The table is constant:
// any thread may ask.
const char* LookupErrorMessage(HRESULT code);
