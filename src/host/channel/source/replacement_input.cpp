#include "host/channel/source/replacement_input.h"

#include <algorithm>
#include <exception>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/time_unit.h"

namespace host {

int OrdinalOf(const AVFormatContext& input, int index) {
  const AVMediaType kind = input.streams[index]->codecpar->codec_type;
  return static_cast<int>(
      std::count_if(input.streams, input.streams + index,
                    [&](const AVStream* other) { return other->codecpar->codec_type == kind; }));
}

namespace {

bool IsAt(const AVFormatContext& input, int index, const ReplacementInput::Position& position) {
  return input.streams[index]->codecpar->codec_type == position.kind &&
         OrdinalOf(input, index) == position.ordinal;
}

// What nobody reads is not fetched.
void DiscardOthers(AVFormatContext& input,
                   const std::vector<ReplacementInput::Position>& positions) {
  for (unsigned i = 0; i < input.nb_streams; ++i) {
    const bool isRead = std::any_of(positions.begin(), positions.end(), [&](const auto& position) {
      return IsAt(input, static_cast<int>(i), position);
    });
    input.streams[i]->discard = isRead ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  }
}

}  // namespace

struct ReplacementInput::State {
  Settings settings;
  std::shared_ptr<ffmpeg::IoDeadline> deadline = std::make_shared<ffmpeg::IoDeadline>();
  std::optional<Opened> opened{};
};

ReplacementInput::ReplacementInput(Settings settings)
    : state_(std::make_shared<State>(State{std::move(settings)})),
      thread_([state = state_] { Run(*state); }, "successor") {}

ReplacementInput::~ReplacementInput() {
  if (state_->deadline) {
    state_->deadline->Cancel();
  }
}

std::optional<ReplacementInput::Opened> ReplacementInput::Take() {
  state_->deadline.reset();  // goes with what was opened
  return std::exchange(state_->opened, std::nullopt);
}

void ReplacementInput::Run(State& state) {
  const Settings& settings = state.settings;
  try {
    Opened opened{state.deadline, nullptr, {}};
    ffmpeg::Options options;
    for (const auto& [key, value] : settings.options) {
      options.Set(key.c_str(), value);
    }
    opened.deadline->Arm(settings.limit);
    opened.input = ffmpeg::OpenInput(settings.name, nullptr, options, *opened.deadline);
    DiscardOthers(*opened.input, settings.positions);
    for (bool reached = false; !reached;) {
      ffmpeg::Packet packet = ffmpeg::MakePacket();
      ffmpeg::Check(av_read_frame(opened.input.get(), packet.get()), "cannot read");
      const AVStream& stream = *opened.input->streams[packet->stream_index];
      const std::optional<Time> time = ffmpeg::ToTime(packet->dts, stream.time_base);
      for (const Position& position : settings.positions) {
        if (time && *time > position.latest && IsAt(*opened.input, stream.index, position)) {
          opened.packets.push_back(std::move(packet));
          reached = &position == &settings.positions.front();
          break;
        }
      }
    }
    opened.deadline->Disarm();
    state.opened = std::move(opened);
  } catch (const std::exception&) {
    // The first one is read on.
  }
}

}  // namespace host
