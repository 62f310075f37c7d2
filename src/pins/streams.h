// What hosts and pins both know of the composer's streams.
#pragma once

#include "platform/dshow/media.h"

// Major types of the side streams, private to the product; the subtype is MEDIASUBTYPE_None.
inline constexpr GUID MEDIATYPE_LabelText{
    0x67CA2076, 0x1596, 0x47C6, {0xA9, 0x6A, 0x85, 0xD7, 0x92, 0xAC, 0xAA, 0x53}};
inline constexpr GUID MEDIATYPE_AudioAlarm{
    0x053A2D3B, 0x77A2, 0x4DF3, {0xB4, 0x6F, 0x40, 0x21, 0x71, 0xA8, 0x1F, 0x59}};
inline constexpr GUID MEDIATYPE_VideoAlarm{
    0xAE3CE0F0, 0x0DCD, 0x4223, {0x88, 0xBA, 0x8E, 0x28, 0x63, 0xE6, 0x5A, 0x18}};

// How long after its time a window shows a frame, 100 ns units.
inline constexpr REFERENCE_TIME kWindowLatency = 10000000;
