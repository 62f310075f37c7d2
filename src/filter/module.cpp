// The classes of the filter library and their registration data.

#include <array>

#include "filter/compose.h"
#include "platform/baseclasses/class_factory.h"

namespace {

constexpr AMOVIESETUP_MEDIATYPE kPictures{&MEDIATYPE_Video, &MEDIASUBTYPE_YV12};
constexpr AMOVIESETUP_MEDIATYPE kAnyAudio{&MEDIATYPE_Audio, nullptr};

constexpr AMOVIESETUP_PIN PinSetup(LPCWSTR name, bool output, bool many,
                                   const AMOVIESETUP_MEDIATYPE* type) {
  return {name, FALSE, output, FALSE, many, &CLSID_NULL, output && many ? u"Input" : u"Output",
          1,    type};
}

// Kinds of pins, not the pins themselves: those depend on the inputs that a host adds.
constexpr std::array kPins{
    PinSetup(u"InputVideo", false, true, &kPictures),
    PinSetup(u"InputAudio", false, true, &kAnyAudio),
    PinSetup(u"InputBG", false, false, &kPictures),
    PinSetup(u"OutputVideo", true, false, &kPictures),
    PinSetup(u"OutputAudio", true, true, &kAnyAudio),
};

// Automatic graph building never picks the composer: hosts add it themselves.
constexpr AMOVIESETUP_FILTER kFilter{&CLSID_TavrelComposer, u"Tavrel Composer", MERIT_DO_NOT_USE,
                                     static_cast<UINT>(kPins.size()), kPins.data()};

}  // namespace

extern const CFactoryTemplate g_Templates[];
extern const int g_cTemplates;

const CFactoryTemplate g_Templates[] = {
    {u"Tavrel Composer", &CLSID_TavrelComposer, &CCompose::CreateInstance, nullptr, &kFilter},
};
const int g_cTemplates = 1;
