#include "host/cli/message_log.h"

#include <algorithm>
#include <cstdarg>

#include "log/format_buffer.h"

namespace host::cli {
namespace {

constexpr std::size_t kLongestMessage = 1040;

std::string Describe(const MediaInfo& info) {
  std::string text = info.format;
  if (info.video.has_value()) {
    text += ", " + info.video->codec + " " + std::to_string(info.video->width) + "x" +
            std::to_string(info.video->height);
  } else {
    text += ", no video (" + info.noVideoReason + ")";
  }
  if (info.audio.has_value()) {
    text += ", " + info.audio->codec;
  } else {
    text += ", no audio (" + info.noAudioReason + ")";
  }
  return text;
}

}  // namespace

MessageLog::MessageLog(Streams& streams, bool verbose)
    : err_(streams.err), progress_(streams.err, streams.progress), verbose_(verbose) {}

void MessageLog::Print(const std::string& line) {
  progress_.Wipe();
  err_ << line << "\n" << std::flush;
}

void MessageLog::ShowProgress(const std::string& text) {
  const std::lock_guard guard(lock_);
  progress_.Show(text);
}

void MessageLog::WipeProgress() {
  const std::lock_guard guard(lock_);
  progress_.Wipe();
}

void MessageLog::log(std::int32_t level, const char* format, ...) {
  if (level > qorp::log::kError && !verbose_) {
    return;
  }
  qorp::log::FormatBuffer<kLongestMessage> buffer;
  va_list arguments;
  va_start(arguments, format);
  const std::size_t length = buffer.Format(format, arguments);
  va_end(arguments);
  const std::lock_guard guard(lock_);
  Print("tavrel: " + std::string(buffer.Data(), length));
}

void MessageLog::Say(const std::string& line) {
  const std::lock_guard guard(lock_);
  Print(line);
}

void MessageLog::ChannelOpened(const std::string& channel, const MediaInfo& info) {
  const std::lock_guard guard(lock_);
  Channel& state = channels_[channel];
  const bool wasLost = state.state == "failed";
  state.state = "live";
  state.reason.clear();
  if (verbose_ || wasLost) {
    Print("channel \"" + channel + "\": opened (" + Describe(info) + ")");
  } else if (!info.video.has_value()) {
    Print("channel \"" + channel + "\": no video (" + info.noVideoReason + ")");
  }
}

void MessageLog::ChannelEnded(const std::string& channel) {
  const std::lock_guard guard(lock_);
  channels_[channel].state = "ended";
  if (verbose_) {
    Print("channel \"" + channel + "\": ended");
  }
}

void MessageLog::ChannelFailed(const std::string& channel, const std::string& reason,
                               std::optional<std::chrono::milliseconds> retryIn) {
  const std::lock_guard guard(lock_);
  Channel& state = channels_[channel];
  const bool isNews = state.state != "failed" || state.reason != reason;
  state.state = "failed";
  state.reason = reason;
  if (isNews || verbose_) {
    Print("channel \"" + channel + "\": " + reason +
          (retryIn.has_value() ? "; it is tried again" : ""));
  }
}

std::map<std::string, MessageLog::Channel> MessageLog::channels() const {
  const std::lock_guard guard(lock_);
  return channels_;
}

std::size_t MessageLog::CountIn(const std::string& state) const {
  const std::lock_guard guard(lock_);
  return static_cast<std::size_t>(
      std::count_if(channels_.begin(), channels_.end(),
                    [&](const auto& entry) { return entry.second.state == state; }));
}

}  // namespace host::cli
