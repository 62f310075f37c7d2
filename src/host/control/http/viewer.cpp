#include "host/control/http/viewer.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "host/config/value_text.h"

namespace host::control::http {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kPreview = "preview";
constexpr const char* kListen = "listen";

enum class MessageKind : std::uint8_t {
  kVideoDescription = 1,
  kVideo = 2,
  kAudioDescription = 3,
  kAudio = 4,
};

std::array<std::uint8_t, 16> HeaderOf(MessageKind kind, const Fragment& fragment) {
  std::array<std::uint8_t, 16> header{};
  header[0] = static_cast<std::uint8_t>(kind);
  header[1] = fragment.isKey ? 1 : 0;
  for (std::size_t i = 0; i < 8; ++i) {
    header[8 + i] = static_cast<std::uint8_t>(fragment.frame >> (8 * i));
  }
  return header;
}

// Why the channel cannot be heard in the present state; empty when it can.
std::string ObstacleOf(const ChannelEntry& entry) {
  if (entry.mute != Mute::kOff) {
    return "it is muted";
  }
  return entry.settings.options.audio.enabled ? "" : "its audio is off";
}

}  // namespace

bool Viewer::IsFor(const nlohmann::json& message) {
  return message.is_object() && (message.contains(kPreview) || message.contains(kListen));
}

Json Viewer::Take(const nlohmann::json& message) {
  if (message.contains("commands") || (message.contains(kPreview) && message.contains(kListen))) {
    throw Problem::Malformed("a message has one of \"commands\", \"preview\" and \"listen\"");
  }
  Json result;
  if (const auto isOn = message.find(kPreview); isOn != message.end()) {
    result[kPreview] = Watch(*isOn);
  } else {
    result[kListen] = Listen(message.at(kListen));
  }
  return result;
}

bool Viewer::Watch(const nlohmann::json& isOn) {
  if (!isOn.is_boolean()) {
    throw Problem::Malformed("\"preview\" must be true or false");
  }
  if (!isOn.get<bool>()) {
    video_ = nullptr;
    return false;
  }
  if (core_.preview() == nullptr) {
    throw Problem::NoPreview();
  }
  if (!video_) {
    video_ = core_.preview()->Subscribe(core_.limits().video, wake_);
  }
  return true;
}

nlohmann::json Viewer::Listen(const nlohmann::json& channel) {
  if (channel.is_null()) {
    heard_.reset();
    return nullptr;
  }
  if (!channel.is_string()) {
    throw Problem::Malformed("\"listen\" must be the name of a channel, or null");
  }
  const auto name = channel.get<std::string>();
  const std::shared_ptr<const WallState> state = core_.api().control().state();
  const std::optional<std::size_t> slot = state->SlotOf(name);
  if (!slot) {
    throw Problem::Of(
        CommandError(CommandError::Kind::kUnknown, "there is no channel \"" + name + "\"",
                     std::string("/") + kListen, config::NearestName(name, state->ChannelNames())),
        "");
  }
  const std::shared_ptr<FragmentFeed> feed = core_.audio(*slot);
  if (!feed) {
    throw Problem::NoPreview();
  }
  if (const std::string obstacle = ObstacleOf(*state->Find(name)); !obstacle.empty()) {
    throw Problem(409, "not-audible", "The channel cannot be heard", obstacle);
  }
  if (!heard_ || heard_->channel != name || heard_->slot != *slot) {
    heard_ = Heard{name, *slot, state->version, Clock::now() + core_.limits().silence,
                   feed->Subscribe(core_.limits().audio, wake_)};
  }
  return name;
}

std::string Viewer::EndOfHeard() {
  if (std::string end = heard_->audio->end(); !end.empty()) {
    return end;
  }
  if (heard_->deadline && Clock::now() >= *heard_->deadline) {
    return "no audio comes from it";
  }
  const WallControl& control = core_.api().control();
  if (control.version() == heard_->version) {
    return "";
  }
  const std::shared_ptr<const WallState> state = control.state();
  heard_->version = state->version;
  return state->SlotOf(heard_->channel) != heard_->slot ? "there is no such channel any more"
                                                        : ObstacleOf(*state->Find(heard_->channel));
}

std::chrono::milliseconds Viewer::Wait(std::chrono::milliseconds limit) const {
  if (!heard_ || !heard_->deadline) {
    return limit;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*heard_->deadline - Clock::now());
  return std::clamp(left, std::chrono::milliseconds(0), limit);
}

std::optional<Viewer::Outgoing> Viewer::Next() {
  // Audio first: it is small, and a gap in it is worse than one in the video.
  std::optional<Outgoing> next = NextAudio();
  return next ? std::move(next) : NextVideo();
}

std::optional<Viewer::Outgoing> Viewer::NextAudio() {
  if (!heard_) {
    return std::nullopt;
  }
  Outgoing outgoing;
  outgoing.piece = heard_->audio->Next();
  if (outgoing.piece) {
    heard_->deadline.reset();
  }
  if (const std::string end = EndOfHeard(); !end.empty()) {
    heard_.reset();
    outgoing.piece = nullptr;
    outgoing.event = OneLine({{"event", "listening"}, {"channel", nullptr}, {"why", end}});
    return outgoing;
  }
  if (!outgoing.piece) {
    return std::nullopt;
  }
  if (const std::optional<FragmentFormat>& format = outgoing.piece->format) {
    outgoing.event = OneLine({{"event", "listening"},
                              {"channel", heard_->channel},
                              {"codec", format->codec},
                              {"rate", format->sampleRate},
                              {"channels", format->channels}});
  }
  outgoing.header =
      HeaderOf(outgoing.piece->format ? MessageKind::kAudioDescription : MessageKind::kAudio,
               *outgoing.piece);
  return outgoing;
}

std::optional<Viewer::Outgoing> Viewer::NextVideo() {
  Outgoing outgoing;
  outgoing.piece = video_ ? video_->Next() : nullptr;
  if (!outgoing.piece) {
    return std::nullopt;
  }
  if (const std::optional<FragmentFormat>& format = outgoing.piece->format) {
    outgoing.event = OneLine({{"event", "preview"},
                              {"on", true},
                              {"codec", format->codec},
                              {"width", format->width},
                              {"height", format->height},
                              {"rate", config::TextOf(format->frameRate)}});
  }
  outgoing.header =
      HeaderOf(outgoing.piece->format ? MessageKind::kVideoDescription : MessageKind::kVideo,
               *outgoing.piece);
  return outgoing;
}

}  // namespace host::control::http
