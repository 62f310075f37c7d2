#include "host/cli/resolving_syslog.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "host/ffmpeg/mask.h"
#include "platform/os/sockets.h"

namespace host::cli {
namespace {

using std::chrono::seconds;

constexpr std::size_t kMaxWaitingLines = 1000;
constexpr seconds kFirstDelay{1};
constexpr seconds kMaxDelay{60};

// The sink cuts the line by bytes, header included: "<131>Nov 16 09:43:14 host 0000 text". Here it
// is done first, between characters.
std::size_t RoomForText() {
  constexpr std::size_t kMaxLine = 1024;
  const std::size_t header =
      std::string_view("<131>Nov 16 09:43:14  0000 ").size() + os::HostName().size();
  return kMaxLine - std::min(header, kMaxLine);
}

}  // namespace

ResolvingSyslog::ResolvingSyslog(config::Endpoint server, std::int32_t maxLevel, Report report)
    : maxLevel_(maxLevel), room_(RoomForText()) {
  state_->server = std::move(server);
  state_->report = std::move(report);
  std::string failure;
  if (!os::IsAddress(state_->server.host) || !state_->Resolve(&failure)) {
    thread_ = std::make_unique<os::Thread>([state = state_] { state->ResolveUntilStopped(); },
                                           "syslog name");
  }
}

ResolvingSyslog::~ResolvingSyslog() {
  const os::MutexLock guard(state_->lock);
  state_->stopped = true;
  state_->changed.NotifyAll();
}

void ResolvingSyslog::Write(std::int32_t level, const qorp::log::LogTime& time, const char* text) {
  if (level > maxLevel_) {
    return;
  }
  std::string line(ffmpeg::CutToBytes(text, room_));
  const os::MutexLock guard(state_->lock);
  if (state_->sink) {
    state_->sink->Write(level, time, line.c_str());
    return;
  }
  if (state_->waiting.size() >= kMaxWaitingLines) {
    state_->waiting.pop_front();
  }
  state_->waiting.push_back({level, time, std::move(line)});
}

bool ResolvingSyslog::State::Resolve(std::string* failure) {
  try {
    os::DatagramSocket socket(server.host, server.port);
    const os::MutexLock guard(lock);
    sink.emplace(std::move(socket), os::HostName());
    for (const Message& message : std::exchange(waiting, {})) {
      sink->Write(message.level, message.time, message.text.c_str());
    }
    return true;
  } catch (const std::runtime_error& error) {
    *failure = error.what();
    return false;
  }
}

void ResolvingSyslog::State::ResolveUntilStopped() {
  seconds delay = kFirstDelay;
  std::string failure;
  while (!Resolve(&failure)) {
    const os::MutexLock guard(lock);
    // Under the lock: the object that is reported to lives until it has set stopped.
    if (delay == kFirstDelay && !stopped) {
      report("syslog: " + failure + "; it is tried again");
    }
    const auto next = std::chrono::steady_clock::now() + delay;
    while (!stopped && changed.WaitUntil(lock, next)) {
    }
    if (stopped) {
      return;
    }
    delay = std::min(delay * 2, kMaxDelay);
  }
}

}  // namespace host::cli
