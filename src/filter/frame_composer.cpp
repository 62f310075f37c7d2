#include "filter/frame_composer.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>

#include "platform/dshow/vfw_errors.h"
#include "render/label_colour.h"
#include "render/selector_drawer.h"
#include "util/exceptions.h"

namespace {

// Towards zero, to an even number of pixels.
LONG MakeEven(LONG position) {
  return position / 2 * 2;
}

// Where a bar of some thickness starts that ends with the window. A host may say any position: what
// is far outside the canvas stays there.
LONG FarEdge(LONG position, LONG size, LONG thickness) {
  return static_cast<LONG>(std::clamp<LONGLONG>(LONGLONG{position} + size - thickness,
                                                std::numeric_limits<LONG>::min(),
                                                std::numeric_limits<LONG>::max()));
}

// A sample's type, when it carries one. Throws when the sample cannot tell.
OwnedMediaType TypeOf(IMediaSample* sample) {
  AM_MEDIA_TYPE* type = nullptr;
  ThrowIfFailed(sample->GetMediaType(&type));
  return OwnedMediaType(type);
}

// The sample's buffer, when it holds a whole picture of that size; null otherwise.
BYTE* PictureOf(IMediaSample* sample, LONG width, LONG height) {
  BYTE* picture = nullptr;
  if (width <= 0 || height <= 0 || FAILED(sample->GetPointer(&picture)) ||
      sample->GetSize() < PictureBytes(width, height)) {
    return nullptr;
  }
  return picture;
}

}  // namespace

bool IsPrerollFrame(REFERENCE_TIME time, REFERENCE_TIME period, const Fraction& rate) {
  if (period == 0 || rate.numerator == 0) {
    return false;
  }
  const LONGLONG dividend = LONGLONG{rate.denominator} * 10000000;
  const LONGLONG divisor = rate.numerator;
  const LONGLONG half = divisor / 2;
  const bool sameSign = (dividend < 0) == (divisor < 0);
  const REFERENCE_TIME duration = (sameSign ? dividend + half : dividend - half) / divisor;
  const REFERENCE_TIME rest = time % period;
  return rest <= duration / 2 || duration / 2 > period - rest;
}

// Lets go of every window sample at the end of a frame, however it ends.
class FrameComposer::SampleHolder {
 public:
  explicit SampleHolder(std::vector<Input>& inputs) : inputs_(inputs) {}
  ~SampleHolder() {
    for (Input& input : inputs_) {
      input.sample.Reset();
    }
  }
  SampleHolder(const SampleHolder&) = delete;
  SampleHolder& operator=(const SampleHolder&) = delete;

 private:
  std::vector<Input>& inputs_;
};

FrameComposer::FrameComposer(CCompose& filter) : filter_(filter) {}

FrameComposer::~FrameComposer() = default;

void FrameComposer::ComposeFrame() {
  const ComPtr<IMediaSample> background = filter_.TakeBackgroundFrame();
  if (!background) {
    return;
  }
  BYTE* canvas = nullptr;
  ThrowIfFailed(background->GetPointer(&canvas));
  REFERENCE_TIME frameTime = 0;
  REFERENCE_TIME stop = 0;
  background->GetTime(&frameTime, &stop);
  if (IsPrerollFrame(frameTime, filter_.prerollPeriod, filter_.frameRate)) {
    background->SetPreroll(TRUE);
  }
  NoteBackgroundType(background.Get());
  if (background->GetSize() < PictureBytes(filter_.outputWidth, filter_.outputHeight)) {
    // The canvas is drawn in place: a smaller buffer must not be touched.
    throw COMException(VFW_E_BUFFER_OVERFLOW);
  }

  FollowInputs();
  const SampleHolder samples(inputs_);
  AskHost();
  ChoosePictures(frameTime);
  DrawWindows(*filter_.compose, windows_, canvas, filter_.outputWidth, filter_.outputHeight,
              filter_.aspectRatio.numerator, filter_.aspectRatio.denominator);
  DrawSelectors(canvas);
  DrawMeters(canvas, frameTime);
  filter_.DeliverFrame(background.Get());
}

void FrameComposer::FollowInputs() {
  const bool same =
      inputs_.size() == filter_.inputs.size() &&
      std::equal(inputs_.begin(), inputs_.end(), filter_.inputs.begin(),
                 [](const Input& mine, const auto& entry) { return mine.index == entry.first; });
  if (same) {
    return;
  }
  inputs_.clear();
  for (auto& [index, pins] : filter_.inputs) {
    inputs_.emplace_back();
    inputs_.back().index = index;
    inputs_.back().pins = &pins;
  }
  windows_.assign(inputs_.size(), WindowState{});
}

void FrameComposer::NoteBackgroundType(IMediaSample* sample) {
  const OwnedMediaType carried = TypeOf(sample);
  if (carried == nullptr) {
    return;
  }
  const CMediaType type(*carried);
  if (type == filter_.backgroundType) {
    return;
  }
  filter_.backgroundType = type;
  // The size of the canvas stays what the host configured.
  LONG width = 0;
  LONG height = 0;
  filter_.backgroundPin->CheckVideoFormat(type, &width, &height);
}

void FrameComposer::AskHost() {
  for (std::size_t i = 0; i < inputs_.size(); ++i) {
    Input& input = inputs_[i];
    WindowState& state = windows_[i];
    state = WindowState{};
    input.selected = false;
    const PictureSize& size = filter_.inputSizes[input.index];
    state.w = size.width;
    state.h = size.height;
    if (!input.pins->window) {
      continue;
    }
    BYTE enabled = 0;
    BYTE selected = 0;
    const char* colour = nullptr;
    ThrowIfFailed(
        input.pins->window->GetWindowState(&enabled, &state.x, &state.y, &colour, &selected));
    state.x = MakeEven(state.x);
    state.y = MakeEven(state.y);
    state.enabled = enabled != 0;
    input.selected = selected != 0;
    ParseLabelColour(*filter_.compose, input.index, colour);
  }
}

void FrameComposer::ChoosePictures(REFERENCE_TIME frameTime) {
  for (std::size_t i = 0; i < inputs_.size(); ++i) {
    Input& input = inputs_[i];
    WindowState& state = windows_[i];
    CComposeInputVideoWindowPin& pin = *input.pins->video;
    pin.PickSample(frameTime, &input.sample);
    if (!input.sample) {
      pin.FlushSamples();
    } else {
      if (state.enabled) {
        TakeFormat(input, input.sample.Get());
        const PictureSize& size = filter_.inputSizes.at(input.index);
        state.w = size.width;
        state.h = size.height;
        state.picture = PictureOf(input.sample.Get(), state.w, state.h);
      }
      REFERENCE_TIME start = 0;
      REFERENCE_TIME stop = 0;
      input.sample->GetTime(&start, &stop);
      pin.ReleaseOlderSamples(start);
    }
    input.pins->text->getNearest(frameTime, &input.text);
    if (input.text.has_value()) {
      SetLabelText(*filter_.compose, input.index,
                   {reinterpret_cast<const char*>(input.text->data()), input.text->size()});
    }
  }
}

void FrameComposer::TakeFormat(Input& input, IMediaSample* sample) {
  const OwnedMediaType carried = TypeOf(sample);
  if (carried == nullptr) {
    return;
  }
  const CMediaType type(*carried);
  CMediaType& last = filter_.inputTypes[input.index];
  if (type == last) {
    return;
  }
  last = type;
  PictureSize size;
  const HRESULT checked = input.pins->video->CheckVideoFormat(type, &size.width, &size.height);
  ThrowIfFailed(checked);
  // A type that tells no size leaves the one that was known.
  if (checked == S_OK) {
    filter_.inputSizes[input.index] = size;
  }
}

void FrameComposer::DrawSelectors(BYTE* canvas) {
  const LONG width = filter_.outputWidth;
  const LONG height = filter_.outputHeight;
  const LONG t = height / 150;
  for (std::size_t i = 0; i < inputs_.size(); ++i) {
    if (!inputs_[i].selected) {
      continue;
    }
    const WindowState& window = windows_[i];
    const LONG lower = FarEdge(window.y, window.h, t);
    const LONG right = FarEdge(window.x, window.w, t);
    DrawSelectorBar(canvas, width, height, window.x, window.y, window.w, t);
    DrawSelectorBar(canvas, width, height, window.x, lower, window.w, t);
    DrawSelectorBar(canvas, width, height, window.x, window.y, t, window.h);
    DrawSelectorBar(canvas, width, height, right, window.y, t, window.h);
  }
}

void FrameComposer::DrawMeters(BYTE* canvas, REFERENCE_TIME frameTime) {
  const Yv12Picture picture{canvas, filter_.outputWidth, filter_.outputHeight};
  for (std::size_t i = 0; i < inputs_.size(); ++i) {
    Input& input = inputs_[i];
    const WindowState& window = windows_[i];
    input.pins->audioAlarm->getNearest(frameTime, &input.audioAlarm);
    if (!input.audioAlarm.has_value()) {
      continue;
    }
    input.pins->videoAlarm->getNearest(frameTime, &input.videoAlarm);
    const AudioAlarm& audio = *input.audioAlarm;
    const std::int32_t meterWidth = window.w / 10;
    if (audio.metersEnabled == 0 || audio.channelCount < 1 || !window.enabled || meterWidth < 1 ||
        window.h < 1) {
      continue;
    }
    const std::int32_t channels =
        std::min<std::int32_t>(audio.channelCount, AudioAlarm::kMaxChannels);
    std::array<float, AudioAlarm::kMaxChannels> levels{};
    std::array<float, AudioAlarm::kMaxChannels> peaks{};
    for (std::int32_t c = 0; c < channels; ++c) {
      const auto channel = static_cast<std::size_t>(c);
      levels[channel] = static_cast<float>(audio.levels[channel]) / 1000;
      peaks[channel] = static_cast<float>(audio.peaks[channel]) / 1000;
    }
    const bool alarm =
        audio.IsRaised() || (input.videoAlarm.has_value() && input.videoAlarm->alarm != 0);
    const auto count = static_cast<std::size_t>(channels);
    meters_.Draw(picture, window.x, window.y, meterWidth, window.h, std::span(levels).first(count),
                 std::span(peaks).first(count), alarm);
  }
}
