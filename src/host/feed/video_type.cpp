#include "host/feed/video_type.h"

#include "pins/streams.h"

namespace host {
namespace {

CMediaType SideType(const GUID& major) {
  CMediaType type(&major);
  type.SetSubtype(&MEDIASUBTYPE_None);
  type.SetFormatType(&FORMAT_None);
  type.SetVariableSize();
  return type;
}

}  // namespace

CMediaType VideoType(int width, int height, Ratio frameRate, Ratio aspect) {
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
  format.bmiHeader.biSizeImage = static_cast<DWORD>(FrameBytes(width, height));
  CMediaType type(&MEDIATYPE_Video);
  type.SetSubtype(&MEDIASUBTYPE_YV12);
  type.SetFormatType(&FORMAT_VideoInfo2);
  type.SetFormat(reinterpret_cast<const BYTE*>(&format), sizeof(format));
  type.SetSampleSize(format.bmiHeader.biSizeImage);
  return type;
}

CMediaType LabelType() {
  return SideType(MEDIATYPE_LabelText);
}
CMediaType AudioAlarmType() {
  return SideType(MEDIATYPE_AudioAlarm);
}
CMediaType VideoAlarmType() {
  return SideType(MEDIATYPE_VideoAlarm);
}

}  // namespace host
