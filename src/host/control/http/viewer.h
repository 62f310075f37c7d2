// Viewer: the video and the audio that one client of a WebSocket has asked for.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <nlohmann/json_fwd.hpp>

#include "host/control/http/core.h"
#include "host/output/fragments.h"

namespace host::control::http {

// Beside commands, a client sends {"preview": true or false} and {"listen": the name of a channel
// or null}. Before each description of a track it gets
//
//   {"event":"preview","on":true,"codec":"avc1.4d401f","width":960,"height":540,"rate":"25"}
//   {"event":"listening","channel":"A","codec":"mp4a.40.2","rate":48000,"channels":2}
//
// and {"event":"listening","channel":null,"why":"..."} when the channel can no longer be heard.
// Binary messages:
//
//   byte 0       1: description of the video (ftyp and moov), 2: one frame (moof and mdat)
//                3: description of the audio, 4: one packet
//   byte 1       bit 0: a keyframe
//   bytes 2-7    0
//   bytes 8-15   number of the composed frame, little endian; of audio 0
//   bytes 16-    fragmented MP4, whose decode times are those of the wall
//
// Server's thread; only wake is called by others.
class Viewer {
 public:
  // wake: as in FragmentFeed. core outlives it.
  Viewer(HttpServer::Core& core, std::function<void()> wake)
      : core_(core), wake_(std::move(wake)) {}

  // Whether a message is for a viewer, not a list of commands.
  static bool IsFor(const nlohmann::json& message);
  // Returns the result. Throws Problem.
  nlohmann::ordered_json Take(const nlohmann::json& message);

  struct Outgoing {
    std::string event;  // to be sent first; may be empty
    std::array<std::uint8_t, 16> header{};
    FragmentFeed::Piece piece;  // null: there is only the event
  };
  // The next message to send; none when nothing waits.
  std::optional<Outgoing> Next();
  // How long to wait at most, without a wake, before Next is called again; limited by limit.
  std::chrono::milliseconds Wait(std::chrono::milliseconds limit) const;

 private:
  using Clock = std::chrono::steady_clock;
  // The channel that is heard.
  struct Heard {
    std::string channel;
    std::size_t slot = 0;
    std::uint64_t version = 0;                  // of the wall's state, at which it could be heard
    std::optional<Clock::time_point> deadline;  // for its first audio
    std::shared_ptr<FragmentFeed::Subscription> audio;
  };

  bool Watch(const nlohmann::json& isOn);
  nlohmann::json Listen(const nlohmann::json& channel);
  // Why it can no longer be heard; empty while it can.
  std::string EndOfHeard();
  std::optional<Outgoing> NextAudio();
  std::optional<Outgoing> NextVideo();

  HttpServer::Core& core_;
  const std::function<void()> wake_;
  std::shared_ptr<FragmentFeed::Subscription> video_;
  std::optional<Heard> heard_;
};

}  // namespace host::control::http
