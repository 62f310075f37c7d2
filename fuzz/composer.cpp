// A composer whose upstream filters and host do whatever they like: any types, any samples with any
// times and properties, connections made and broken at any moment, any window states. Nothing is
// read or written outside, no call hangs or throws, every sample is released, and afterwards the
// composer composes a valid frame.

#include <algorithm>
#include <array>
#include <limits>
#include <string>
#include <thread>

#include <fuzzer/FuzzedDataProvider.h>

#include "filter/compose.h"
#include "fuzz/check.h"
#include "fuzz/fuzz_graph.h"
#include "tests/support/foreign_sample.h"

namespace {

using Data = FuzzedDataProvider;
using Sample = ComPtr<fakes::ForeignSample>;

constexpr LONG kWidth = 64;
constexpr LONG kHeight = 160;  // a selection border of one pixel
constexpr LONG kInputs = 2;
constexpr int kPins = 2 + 6 * kInputs;
constexpr int kMaxSteps = 60;  // bounds memory and time

class HostWindow final : public CUnknown, public IComposeWindow {
 public:
  DECLARE_IUNKNOWN
  HostWindow() : CUnknown("window", nullptr) {}
  HRESULT GetWindowState(BYTE* enabled, LONG* x, LONG* y, const char** colour,
                         BYTE* selected) override {
    const std::lock_guard guard(lock_);
    *enabled = state_.enabled ? 1 : 0;
    *x = state_.x;
    *y = state_.y;
    *colour = state_.hasColour ? state_.colour.c_str() : nullptr;
    *selected = state_.selected ? 1 : 0;
    return state_.result;
  }

  struct State {
    HRESULT result = S_OK;
    bool enabled = true;
    bool selected = false;
    bool hasColour = false;
    LONG x = 0;
    LONG y = 0;
    std::string colour;
  };
  // While a frame is composed its texts may still be read: they change between frames only.
  void Set(State state) {
    const std::lock_guard guard(lock_);
    state_ = std::move(state);
  }

 private:
  std::mutex lock_;
  State state_;
};

template <typename Number>
Number AnyNumber(Data& data) {
  using Limits = std::numeric_limits<Number>;
  constexpr std::array kEnds{Limits::min(), Number{-1}, Number{0}, Number{1}, Limits::max()};
  switch (data.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
      return data.PickValueInArray(kEnds);
    case 1:
      return data.ConsumeIntegral<Number>();
    default:
      return data.ConsumeIntegralInRange<Number>(0, 100);
  }
}

REFERENCE_TIME AnyTime(Data& data) {
  return data.ConsumeBool() ? data.ConsumeIntegralInRange<REFERENCE_TIME>(0, 100) * 400000
                            : AnyNumber<REFERENCE_TIME>(data);
}

CMediaType TypeOf(const GUID& major, const GUID& subtype, const GUID& format) {
  CMediaType type(&major);
  type.SetSubtype(&subtype);
  type.SetFormatType(&format);
  return type;
}

CMediaType Yv12Type(LONG width, LONG height, REFERENCE_TIME duration) {
  VIDEOINFOHEADER2 header{};
  header.AvgTimePerFrame = duration;
  header.bmiHeader.biWidth = width;
  header.bmiHeader.biHeight = height;
  CMediaType type = TypeOf(MEDIATYPE_Video, MEDIASUBTYPE_YV12, FORMAT_VideoInfo2);
  type.SetFormat(reinterpret_cast<const BYTE*>(&header), sizeof(header));
  return type;
}

CMediaType AnyType(Data& data) {
  if (data.ConsumeBool()) {
    return Yv12Type(AnyNumber<LONG>(data), AnyNumber<LONG>(data), AnyTime(data));
  }
  constexpr std::array kMajor{MEDIATYPE_Video, MEDIATYPE_Audio, GUID_NULL};
  constexpr std::array kSub{MEDIASUBTYPE_YV12, MEDIASUBTYPE_DOLBY_AC3, MEDIASUBTYPE_None};
  constexpr std::array kFormat{FORMAT_VideoInfo, FORMAT_VideoInfo2, FORMAT_None};
  CMediaType type = TypeOf(data.PickValueInArray(kMajor), data.PickValueInArray(kSub),
                           data.PickValueInArray(kFormat));
  const std::string block = data.ConsumeRandomLengthString(120);
  type.SetFormat(reinterpret_cast<const BYTE*>(block.data()), static_cast<ULONG>(block.size()));
  return type;
}

Sample SampleOf(std::size_t bytes, REFERENCE_TIME time) {
  Sample sample = fakes::ForeignSample::Create(bytes);
  REFERENCE_TIME stop = time;
  sample->SetTime(&time, &stop);
  return sample;
}

// A record of audio levels with meters, mostly valid.
std::string AudioRecord(Data& data) {
  std::string record(85, '\0');
  record[0] = record[1] = record[3] = 1;
  record[4] = data.ConsumeIntegralInRange<char>(-1, 12);
  for (std::size_t channel = 0; channel < 20; ++channel) {
    record[5 + 4 * channel + 2] = data.ConsumeIntegralInRange<char>(-1, 4);
  }
  return record;
}

bool IsPicturePin(int position) {
  return position == 0 || position % 6 == 2;
}
bool IsLevelsPin(int position) {
  return position > 1 && position % 6 == 1;
}

Sample AnySample(Data& data, int position) {
  const std::size_t whole = std::size_t{kWidth} * kHeight * 3 / 2;
  const bool isWhole = IsPicturePin(position) && !data.ConsumeBool();
  Sample sample =
      SampleOf(isWhole ? whole : data.ConsumeIntegralInRange<std::size_t>(0, 200), AnyTime(data));
  BYTE* bytes = nullptr;
  sample->GetPointer(&bytes);
  const std::string content = IsLevelsPin(position) && data.ConsumeBool()
                                  ? AudioRecord(data)
                                  : data.ConsumeRandomLengthString(90);
  const std::size_t length = std::min<std::size_t>(content.size(), sample->GetSize());
  std::copy_n(content.begin(), length, bytes);
  sample->length = static_cast<LONG>(length);
  const auto choices = data.ConsumeIntegral<std::uint16_t>();
  const auto chosen = [choices](int bit) { return (choices >> bit & 1) != 0; };
  REFERENCE_TIME start = AnyTime(data);
  REFERENCE_TIME stop = AnyTime(data);
  if (chosen(0)) {
    sample->SetTime(chosen(1) ? &start : nullptr, chosen(2) ? &stop : nullptr);
  }
  sample->SetDiscontinuity(chosen(3) ? TRUE : FALSE);
  sample->SetSyncPoint(chosen(4) ? TRUE : FALSE);
  if (chosen(5) && chosen(6)) {
    sample->length = AnyNumber<LONG>(data);
  }
  if (chosen(7)) {
    CMediaType type = AnyType(data);
    sample->SetMediaType(&type);
  }
  if (chosen(8) && chosen(9)) {
    sample->hasBuffer = false;
  }
  if (chosen(10) && chosen(11)) {
    const std::array answers{&sample->time, &sample->mediaTime, &sample->preroll,
                             &sample->mediaType, &sample->allProperties};
    constexpr std::array kResults{S_OK, S_FALSE, E_FAIL};
    *data.PickValueInArray(answers) = data.PickValueInArray(kResults);
  }
  return sample;
}

// The composer with a filter at each of its pins.
class Wall {
 public:
  Wall() {
    HRESULT hr = S_OK;
    composer_ = static_cast<CCompose*>(CCompose::CreateInstance(nullptr, &hr));
    FUZZ_CHECK(composer_ != nullptr);
    filter_ = ComPtr<IBaseFilter>(composer_);
    FUZZ_CHECK(composer_->Configure(kInputs, &logger_, kWidth, kHeight, 4, 3, 2000000, {25, 1}) ==
               S_OK);
    for (LONG i = 0; i < kInputs; ++i) {
      windows_[i] = ComPtr<HostWindow>(std::make_unique<HostWindow>().release());
      FUZZ_CHECK(composer_->AddInput(i, static_cast<IComposeWindow*>(windows_[i].Get())) == S_OK);
    }
    for (int i = 0; i < kPins; ++i) {
      sources_[i] = fuzz::OnePinFilter<fuzz::UpstreamPin>::Create();
      sinks_[i] = fuzz::OnePinFilter<fuzz::SinkPin>::Create();
      if (IsOutput(i)) {
        continue;
      }
      // Most inputs begin with valid connections.
      CMediaType type = Proposal(i);
      FUZZ_CHECK(Connect(i, type) == S_OK);
    }
  }
  ~Wall() {
    filter_->Stop();
    for (int i = 0; i < kPins; ++i) {
      Disconnect(i);
    }
  }

  void Step(Data& data) {
    const int pin = data.ConsumeIntegralInRange<int>(0, kPins - 1);
    switch (data.ConsumeIntegralInRange<int>(0, 9)) {
      case 0:
        Reconnect(data, pin);
        break;
      case 1:
        Disconnect(pin);
        break;
      case 2:
        ChangeState(data);
        break;
      case 3:
        windows_[data.ConsumeIntegralInRange<LONG>(0, kInputs - 1)]->Set(
            {data.PickValueInArray({S_OK, S_OK, S_OK, E_FAIL}), data.ConsumeBool(),
             data.ConsumeIntegralInRange<int>(0, 3) == 0, data.ConsumeBool(), AnyNumber<LONG>(data),
             AnyNumber<LONG>(data), data.ConsumeRandomLengthString(10)});
        break;
      case 4:
        Flush(data, pin);
        break;
      case 5:
        Send(0, SampleOf(std::size_t{kWidth} * kHeight * 3 / 2, AnyTime(data)));
        break;
      default:
        if (!IsOutput(pin)) {
          Send(pin, AnySample(data, pin));
        }
        break;
    }
  }

  // Whatever went before: with valid types, states and frames a frame is delivered.
  void ComposeDecentFrame() {
    filter_->Stop();
    for (const ComPtr<HostWindow>& window : windows_) {
      window->Set({});
    }
    for (int i = 0; i < kPins; ++i) {
      if (i == 0 || IsOutput(i)) {
        Disconnect(i);
      }
    }
    FUZZ_CHECK(Connect(0, Proposal(0)) == S_OK);
    FUZZ_CHECK(composer_->GetPin(1)->Connect(&sinks_[1]->pin, nullptr) == S_OK);
    FUZZ_CHECK(filter_->Run(0) == S_OK);
    sinks_[1]->pin.answer = S_OK;
    const int before = sinks_[1]->pin.received;
    Send(0, SampleOf(std::size_t{kWidth} * kHeight * 3 / 2, 400000));
    FUZZ_CHECK(sinks_[1]->pin.received == before + 1);
  }

 private:
  bool IsOutput(int position) const { return position == 1 || position % 6 == 5; }

  CMediaType Proposal(int position) {
    if (IsPicturePin(position)) {
      return Yv12Type(position == 0 ? kWidth : 24, position == 0 ? kHeight : 20, 400000);
    }
    if (position % 6 == 3) {
      return TypeOf(MEDIATYPE_Audio, MEDIASUBTYPE_DOLBY_AC3, FORMAT_None);
    }
    CMediaType type;
    composer_->GetPin(position)->GetMediaType(0, &type);
    return type;
  }

  HRESULT Connect(int position, const CMediaType& type) {
    return sources_[position]->pin.Connect(composer_->GetPin(position), &type);
  }

  void Reconnect(Data& data, int position) {
    CBasePin& pin = *composer_->GetPin(position);
    if (IsOutput(position)) {
      pin.Connect(&sinks_[position]->pin, nullptr);
      sinks_[position]->pin.answer = data.ConsumeBool() ? S_OK : E_FAIL;
      return;
    }
    const CMediaType type = data.ConsumeBool() ? AnyType(data) : Proposal(position);
    sources_[position]->pin.wanted = {data.ConsumeIntegralInRange<LONG>(0, 100),
                                      data.ConsumeIntegralInRange<LONG>(0, 300), 1, 0};
    if (data.ConsumeBool()) {
      pin.ReceiveConnection(&sources_[position]->pin, &type);
    } else {
      Disconnect(position);
      Connect(position, type);
    }
  }

  void Disconnect(int position) {
    composer_->GetPin(position)->Disconnect();
    sources_[position]->pin.Disconnect();
    sinks_[position]->pin.Disconnect();
  }

  void ChangeState(Data& data) {
    switch (data.ConsumeIntegralInRange<int>(0, 2)) {
      case 0:
        filter_->Stop();
        break;
      case 1:
        filter_->Pause();
        break;
      default:
        filter_->Run(AnyTime(data));
        break;
    }
  }

  void Flush(Data& data, int position) {
    CBasePin& pin = *composer_->GetPin(position);
    pin.BeginFlush();
    pin.EndOfStream();
    pin.EndFlush();
    pin.NewSegment(AnyTime(data), AnyTime(data), 1.0);
    ComPtr<IEnumMediaTypes> types;
    FUZZ_CHECK(pin.EnumMediaTypes(types.Put()) == S_OK);
    AM_MEDIA_TYPE* type = nullptr;
    types->Next(1, &type, nullptr);
    DeleteMediaType(type);
  }

  // A background sample is composed and released before the next step: what happens is a function
  // of the input.
  void Send(int position, const Sample& sample) {
    static_cast<CBaseInputPin*>(composer_->GetPin(position))->Receive(sample.Get());
    // If the composer keeps one, this loops until the fuzzer's time limit.
    while (position == 0 && (sample->AddRef(), sample->Release() > 1)) {
      std::this_thread::yield();
    }
  }

  fuzz::QuietLogger logger_;
  CCompose* composer_ = nullptr;
  ComPtr<IBaseFilter> filter_;
  std::array<ComPtr<HostWindow>, kInputs> windows_;
  std::array<ComPtr<fuzz::OnePinFilter<fuzz::UpstreamPin>>, kPins> sources_;
  std::array<ComPtr<fuzz::OnePinFilter<fuzz::SinkPin>>, kPins> sinks_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  // Keeps the fonts from one input to the next.
  static const Compose kFonts(1);
  Data data(bytes, size);
  {
    Wall wall;
    for (int step = 0; step < kMaxSteps && data.remaining_bytes() > 0; ++step) {
      wall.Step(data);
    }
    wall.ComposeDecentFrame();
  }
  FUZZ_CHECK(CUnknown::ObjectsActive() == 0);
  return 0;
}
