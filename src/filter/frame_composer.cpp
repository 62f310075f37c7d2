#include "filter/frame_composer.h"

#include <algorithm>

#include "platform/dshow/media.h"
#include "platform/dshow/vfw_errors.h"
#include "render/text_renderer.h"
#include "util/exceptions.h"

namespace {

static_assert(AudioAlarm::kMaxChannels <= WindowOverlays::kMaxChannels);

// Towards zero, to an even number of pixels.
LONG MakeEven(LONG position) {
  return position / 2 * 2;
}

// The sample's buffer, when it holds a whole frame of that size; null otherwise.
BYTE* PictureOf(IMediaSample* sample, LONG width, LONG height) {
  BYTE* picture = nullptr;
  if (width <= 0 || height <= 0 || FAILED(sample->GetPointer(&picture)) ||
      sample->GetSize() < PictureBytes(width, height)) {
    return nullptr;
  }
  return picture;
}

}  // namespace

bool IsPrerollFrame(REFERENCE_TIME time, REFERENCE_TIME period, const qorp::Ratio& rate) {
  if (period == 0 || rate.num == 0) {
    return false;
  }
  const REFERENCE_TIME duration = qorp::FrameDuration(rate);
  const REFERENCE_TIME rest = TimeRemainder(time, period);
  return rest <= duration / 2 || duration / 2 > SubtractTimes(period, rest);
}

// Releases every window sample at the end of a frame, however it ends.
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

FrameComposer::FrameComposer(Composition& composition) : composition_(composition) {}

FrameComposer::~FrameComposer() = default;

void FrameComposer::ComposeFrame(IMediaSample* background, const std::function<void()>& deliver) {
  BYTE* canvas = nullptr;
  ThrowIfFailed(background->GetPointer(&canvas));
  ThrowIfFailed(canvas != nullptr ? S_OK : E_POINTER);
  REFERENCE_TIME frameTime = 0;
  REFERENCE_TIME stop = 0;
  background->GetTime(&frameTime, &stop);
  if (IsPrerollFrame(frameTime, composition_.prerollPeriod, composition_.frameRate)) {
    background->SetPreroll(TRUE);
  }
  NoteBackgroundType(background);
  if (background->GetSize() < PictureBytes(composition_.outputWidth, composition_.outputHeight)) {
    // The canvas is drawn in place: a smaller buffer must not be touched.
    throw COMException(VFW_E_BUFFER_OVERFLOW);
  }

  FollowInputs();
  const SampleHolder samples(inputs_);
  AskHost();
  ChoosePictures(frameTime);
  const Yv12Picture picture{canvas, std::max<LONG>(composition_.outputWidth, 0),
                            std::max<LONG>(composition_.outputHeight, 0)};
  // Reading drops older records: a frame that a selection refuses leaves them to the next one.
  if (SelectionsFit(windows_, overlays_, picture)) {
    ReadMeters(frameTime);
  }
  mosaic_.Draw(*composition_.compose, windows_, overlays_, picture, composition_.aspectRatio);
  deliver();
}

void FrameComposer::FollowInputs() {
  const bool same =
      inputs_.size() == composition_.inputs.size() &&
      std::equal(inputs_.begin(), inputs_.end(), composition_.inputs.begin(),
                 [](const Input& mine, const auto& entry) { return mine.index == entry.first; });
  if (same) {
    return;
  }
  inputs_.clear();
  for (auto& [index, pins] : composition_.inputs) {
    inputs_.emplace_back();
    inputs_.back().index = index;
    inputs_.back().pins = &pins;
  }
  windows_.assign(inputs_.size(), WindowState{});
  overlays_.assign(inputs_.size(), WindowOverlays{});
}

void FrameComposer::NoteBackgroundType(IMediaSample* sample) {
  OwnedMediaType carried;
  ThrowIfFailed(ReadMediaType(sample, &carried));
  if (carried == nullptr) {
    return;
  }
  const CMediaType type(*carried);
  if (type == composition_.backgroundType) {
    return;
  }
  composition_.backgroundType = type;
  // The size of the canvas stays what the host configured.
  LONG width = 0;
  LONG height = 0;
  composition_.backgroundPin->CheckVideoFormat(type, &width, &height);
}

void FrameComposer::AskHost() {
  for (std::size_t i = 0; i < inputs_.size(); ++i) {
    Input& input = inputs_[i];
    WindowState& state = windows_[i];
    state = WindowState{};
    overlays_[i] = WindowOverlays{};
    const WindowSize& size = composition_.inputSizes[input.index];
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
    overlays_[i].selected = selected != 0;
    ParseLabelColour(*composition_.compose, input.index, colour);
  }
}

void FrameComposer::ChoosePictures(REFERENCE_TIME frameTime) {
  for (std::size_t i = 0; i < inputs_.size(); ++i) {
    Input& input = inputs_[i];
    WindowState& state = windows_[i];
    CComposeInputVideoWindowPin& pin = *input.pins->video;
    pin.PickSample(frameTime, &input.sample);
    if (input.sample) {
      if (state.enabled) {
        TakeFormat(input, input.sample.Get());
        const WindowSize& size = composition_.inputSizes.at(input.index);
        state.w = size.width;
        state.h = size.height;
        state.picture = PictureOf(input.sample.Get(), state.w, state.h);
      }
      REFERENCE_TIME start = 0;
      REFERENCE_TIME stop = 0;
      pin.ReadTime(input.sample.Get(), &start, &stop);
      pin.ReleaseOlderSamples(start);
    }
    input.pins->text->getNearest(frameTime, &input.text);
    if (input.text.has_value()) {
      SetLabelText(*composition_.compose, input.index,
                   {reinterpret_cast<const char*>(input.text->data()), input.text->size()});
    }
  }
}

void FrameComposer::TakeFormat(Input& input, IMediaSample* sample) {
  OwnedMediaType carried;
  ThrowIfFailed(input.pins->video->ReadType(sample, &carried));
  if (carried == nullptr) {
    return;
  }
  const CMediaType type(*carried);
  CMediaType& last = composition_.inputTypes[input.index];
  if (type == last) {
    return;
  }
  last = type;
  WindowSize size;
  const HRESULT checked = input.pins->video->CheckVideoFormat(type, &size.width, &size.height);
  ThrowIfFailed(checked);
  // A type without a size leaves the one that was known.
  if (checked == S_OK) {
    composition_.inputSizes[input.index] = size;
  }
}

void FrameComposer::ReadMeters(REFERENCE_TIME frameTime) {
  for (std::size_t i = 0; i < inputs_.size(); ++i) {
    Input& input = inputs_[i];
    input.pins->audioAlarm->getNearest(frameTime, &input.audioAlarm);
    if (!input.audioAlarm.has_value()) {
      continue;
    }
    input.pins->videoAlarm->getNearest(frameTime, &input.videoAlarm);
    const AudioAlarm& audio = *input.audioAlarm;
    if (audio.metersEnabled == 0 || audio.channelCount < 1 || !windows_[i].enabled) {
      continue;
    }
    WindowOverlays& overlays = overlays_[i];
    overlays.metered = true;
    overlays.channels = std::min<std::int32_t>(audio.channelCount, AudioAlarm::kMaxChannels);
    for (std::size_t c = 0; c < AudioAlarm::kMaxChannels; ++c) {
      overlays.levels[c] = static_cast<float>(audio.levels[c]) / 1000;
      overlays.peaks[c] = static_cast<float>(audio.peaks[c]) / 1000;
    }
    overlays.alarm =
        audio.IsRaised() || (input.videoAlarm.has_value() && input.videoAlarm->alarm != 0);
  }
}
