#include "host/graph/picture_type.h"

namespace host {
namespace {

// The private types of the side streams, as the composer's pins expect them.
constexpr GUID kLabel{0x67CA2076, 0x1596, 0x47C6, {0xA9, 0x6A, 0x85, 0xD7, 0x92, 0xAC, 0xAA, 0x53}};
constexpr GUID kAudioAlarm{
    0x053A2D3B, 0x77A2, 0x4DF3, {0xB4, 0x6F, 0x40, 0x21, 0x71, 0xA8, 0x1F, 0x59}};
constexpr GUID kVideoAlarm{
    0xAE3CE0F0, 0x0DCD, 0x4223, {0x88, 0xBA, 0x8E, 0x28, 0x63, 0xE6, 0x5A, 0x18}};

CMediaType SideType(const GUID& major) {
  CMediaType type(&major);
  type.SetSubtype(&MEDIASUBTYPE_None);
  type.SetFormatType(&FORMAT_None);
  type.SetVariableSize();
  return type;
}

}  // namespace

CMediaType PictureType(int width, int height, Ratio frameRate, Ratio aspect) {
  VIDEOINFOHEADER2 format{};
  format.rcSource = format.rcTarget = {0, 0, width, height};
  format.AvgTimePerFrame = FrameDuration(frameRate);
  format.dwPictAspectRatioX = static_cast<DWORD>(aspect.num);
  format.dwPictAspectRatioY = static_cast<DWORD>(aspect.den);
  format.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
  format.bmiHeader.biWidth = width;
  format.bmiHeader.biHeight = height;
  format.bmiHeader.biPlanes = 1;
  format.bmiHeader.biBitCount = 12;
  format.bmiHeader.biCompression = MakeFourcc('Y', 'V', '1', '2');
  format.bmiHeader.biSizeImage = static_cast<DWORD>(PictureSize(width, height));
  CMediaType type(&MEDIATYPE_Video);
  type.SetSubtype(&MEDIASUBTYPE_YV12);
  type.SetFormatType(&FORMAT_VideoInfo2);
  type.SetFormat(reinterpret_cast<const BYTE*>(&format), sizeof(format));
  type.SetSampleSize(format.bmiHeader.biSizeImage);
  return type;
}

CMediaType LabelType() {
  return SideType(kLabel);
}
CMediaType AudioAlarmType() {
  return SideType(kAudioAlarm);
}
CMediaType VideoAlarmType() {
  return SideType(kVideoAlarm);
}

}  // namespace host
