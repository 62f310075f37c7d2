#include "host/output/output.h"

#include <algorithm>
#include <filesystem>

#include "platform/os/waitable.h"

namespace host {
namespace {

using std::chrono::milliseconds;

// A file that was begun is not overwritten by the next opening: it gets a name of its own.
std::string NumberedFile(const std::string& url, std::uint64_t number) {
  std::error_code ignored;
  const std::filesystem::path path(url);
  if (number < 2 || url.find("://") != std::string::npos || path.extension() == ".m3u8" ||
      !std::filesystem::is_regular_file(path, ignored)) {
    return url;
  }
  std::filesystem::path numbered = path;
  numbered.replace_filename(path.stem().string() + "-" + std::to_string(number) +
                            path.extension().string());
  return numbered.string();
}

}  // namespace

Output::Output(Settings settings, ffmpeg::Parameters video, OutputObserver* observer,
               qorp::log::ILogPerf* logger)
    : settings_(std::move(settings)),
      video_(std::move(video)),
      observer_(observer),
      logger_(logger),
      counters_(settings_.pass.tracks.size()),
      queue_(settings_.queue, counters_) {
  if (logger_ != nullptr) {
    logger_->RegisterPin(settings_.pin.c_str());
  }
  thread_ = std::make_unique<os::Thread>([this] { Run(); }, "output");
}

Output::~Output() {
  if (thread_) {
    Finish(milliseconds(0));
  }
}

void Output::NoteOverflow() {
  ++overflows_;
  if (logger_ != nullptr) {
    logger_->NotifyBufferFull(settings_.pin.c_str());
  }
}

void Output::TakeVideo(const AVPacket& packet) {
  ++counters_.of(TrackPacket::kVideo).received;
  TrackPacket item{TrackPacket::kVideo, ffmpeg::RefPacket(packet)};
  if (!settings_.live) {
    queue_.PushWaiting(std::move(item));
  } else if (queue_.PushDropping(std::move(item)) == PacketQueue::Pushed::kOverflowed) {
    NoteOverflow();
  }
}

void Output::TakeSound(std::size_t channel, const AVPacket& packet, Time shift) {
  if (channel >= settings_.pass.tracks.size()) {
    return;
  }
  ++counters_.of(static_cast<int>(channel)).received;
  TrackPacket item{static_cast<int>(channel), ffmpeg::RefPacket(packet), shift};
  if (!settings_.live) {
    // Whoever drives the wall waits for room.
    queue_.Push(std::move(item));
  } else if (queue_.PushDropping(std::move(item)) == PacketQueue::Pushed::kOverflowed) {
    NoteOverflow();
  }
}

OutputPass::Settings Output::PassSettings() const {
  OutputPass::Settings settings = settings_.pass;
  settings.muxer.url = NumberedFile(settings.muxer.url, openings_ + 1);
  return settings;
}

bool Output::SetPass(OutputPass* pass) {
  const std::lock_guard guard(lock_);
  pass_ = pass;
  return !cancelled_;
}

void Output::SetFailure(const std::string& reason) {
  const std::lock_guard guard(lock_);
  failure_ = reason;
}

std::string Output::failure() const {
  const std::lock_guard guard(lock_);
  return failure_;
}

void Output::FailForGood(const std::string& reason) {
  SetFailure(reason);
  failed_ = true;
  queue_.Abandon();
  observer_->OutputFailed(settings_.name, reason, std::nullopt);
}

std::string Output::RunPass(OutputPass& pass) {
  bool wasOpen = false;
  try {
    while (std::optional<TrackPacket> packet = queue_.Pop()) {
      pass.Take(std::move(*packet));
      if (pass.started() && !wasOpen) {
        wasOpen = true;
        if (++openings_ > 1 || !failure().empty()) {
          observer_->OutputRecovered(settings_.name);
        }
        SetFailure("");
      }
    }
    pass.Finish();
    return {};
  } catch (const std::exception& error) {
    openings_ += pass.started() && !wasOpen ? 1 : 0;
    return error.what();
  }
}

void Output::Run() {
  milliseconds delay = settings_.firstDelay;
  for (;;) {
    const OutputPass::Settings settings = PassSettings();
    OutputPass pass(settings, *video_, counters_, [this](const std::string& what) {
      observer_->OutputSaid(settings_.name, what);
    });
    const std::string reason = SetPass(&pass) ? RunPass(pass) : "stopped";
    const bool goesOn = SetPass(nullptr) && settings_.live && !failed_;
    if (reason.empty() || failed_) {
      return;
    }
    SetFailure(reason);
    if (pass.length() >= settings_.longestDelay.count() * kMillisecond) {
      delay = settings_.firstDelay;
    }
    observer_->OutputFailed(settings_.name, reason, goesOn ? std::optional(delay) : std::nullopt);
    if (!goesOn || !queue_.DiscardFor(delay)) {
      break;
    }
    delay = std::min(delay * 2, settings_.longestDelay);
  }
  failed_ = true;
  queue_.Abandon();
}

void Output::Finish(milliseconds limit) {
  queue_.Close();
  if (thread_->Wait(static_cast<std::uint32_t>(limit.count()))) {
    return;
  }
  {
    const std::lock_guard guard(lock_);
    cancelled_ = true;
    if (pass_ != nullptr) {
      pass_->Cancel();
    }
  }
  thread_->Wait(os::kInfinite);
}

}  // namespace host
