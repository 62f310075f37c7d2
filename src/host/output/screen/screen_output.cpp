#include "host/output/screen/screen_output.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

#include "host/output/screen/screen_protocol.h"
#include "util/text_codecs.h"

namespace host {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using MessageKind = ScreenMessage::Kind;

constexpr int kScreenRate = 48'000;
constexpr int kStereo = 2;
constexpr int kSamplesInMessage = 2'048;
// How often the thread looks whether it is to stop or the display has stopped answering.
constexpr milliseconds kLook{500};
// For a window to close when it is asked to.
constexpr milliseconds kQuitLimit{1'000};
// The exit code with which the display's library ends the process when it loses its server.
constexpr int kConnectionLost = 1;

std::string Reason(std::optional<int> status) {
  if (!status) {
    return "its window does not answer";
  }
  if (*status < 0) {
    return "its window has crashed (signal " + std::to_string(-*status) + ")";
  }
  return *status == kConnectionLost
             ? "the connection to its display was lost"
             : "its window has ended (exit code " + std::to_string(*status) + ")";
}

}  // namespace

const char* NameOf(ScreenOutput::State state) {
  switch (state) {
    case ScreenOutput::State::kOpening:
      return "opening";
    case ScreenOutput::State::kOpen:
      return "open";
    case ScreenOutput::State::kFailed:
      return "failed";
    case ScreenOutput::State::kClosed:
      return "closed";
  }
  return "";
}

struct ScreenOutput::Session {
  explicit Session(const Settings& settings)
      : frameSize(static_cast<std::size_t>(settings.width) *
                  static_cast<std::size_t>(settings.height) * 3 / 2),
        process(settings.program, {kScreenWindowCommand}, ScreenFrames::SizeFor(frameSize)),
        frames(new (process.memory().data()) ScreenFrames) {}

  const std::size_t frameSize;  // bytes
  os::CompanionProcess process;
  ScreenFrames* const frames;  // in the memory of the process
  std::size_t slot = ScreenFrames::kOfWall;
  // Since when it is to answer: to open, or to show a frame.
  std::optional<Clock::time_point> asked = Clock::now();
  bool isOpen = false;
  bool isClosed = false;  // by the operator
  std::string failure;    // as the window says it
};

ScreenOutput::ScreenOutput(Settings settings, OutputObserver* observer)
    : settings_(std::move(settings)), observer_(observer), stop_(os::Event::Reset::kManual) {
  {
    const os::MutexLock guard(lock_);
    status_.name = settings_.name;
  }
  thread_ = std::make_unique<os::Thread>([this] { Run(); }, "screen");
}

ScreenOutput::~ScreenOutput() {
  Finish();
}

void ScreenOutput::Finish() {
  stop_.Set();
  {
    const os::MutexLock guard(lock_);
    if (socket_ != nullptr) {
      socket_->Wake();
    }
  }
  if (thread_) {
    thread_->Wait(os::kInfinite);
    thread_.reset();
  }
}

ScreenOutput::Status ScreenOutput::status() const {
  const os::MutexLock guard(lock_);
  return status_;
}

void ScreenOutput::Take(const ComPtr<IMediaSample>& frame, Time start) {
  ComPtr<IMediaSample> replaced;  // is released without the lock
  const os::MutexLock guard(lock_);
  ++taken_;
  if (socket_ == nullptr) {
    return;
  }
  if (waiting_.frame) {
    ++status_.skipped;
  }
  replaced = std::exchange(waiting_.frame, frame);
  waiting_.start = start;
  waiting_.number = taken_;
  socket_->Wake();
}

void ScreenOutput::TakeAudio(const AVFrame& samples, Time start) {
  if (!resampler_ || samples.format != sampleFormat_ || samples.sample_rate != sampleRate_ ||
      samples.ch_layout.nb_channels != channels_) {
    sampleFormat_ = samples.format;
    sampleRate_ = samples.sample_rate;
    channels_ = samples.ch_layout.nb_channels;
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    // Some decoders know only the number of their channels.
    AVChannelLayout from{};
    if (samples.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
      av_channel_layout_default(&from, channels_);
    } else if (av_channel_layout_copy(&from, &samples.ch_layout) < 0) {
      return;
    }
    SwrContext* context = nullptr;
    const int result = swr_alloc_set_opts2(&context, &stereo, AV_SAMPLE_FMT_FLT, kScreenRate, &from,
                                           static_cast<AVSampleFormat>(samples.format),
                                           samples.sample_rate, 0, nullptr);
    av_channel_layout_uninit(&from);
    resampler_.reset(context);
    if (result < 0 || swr_init(context) < 0) {
      resampler_.reset();
      return;
    }
  }
  const Time held = swr_get_delay(resampler_.get(), kSecond);
  std::vector<float> converted(static_cast<std::size_t>(
      kStereo * std::max(1, swr_get_out_samples(resampler_.get(), samples.nb_samples))));
  auto* out = reinterpret_cast<std::uint8_t*>(converted.data());
  const int count =
      swr_convert(resampler_.get(), &out, static_cast<int>(converted.size()) / kStereo,
                  const_cast<const std::uint8_t**>(samples.extended_data), samples.nb_samples);
  for (int first = 0; first < count; first += kSamplesInMessage) {
    SendSamples(converted.data() + static_cast<std::ptrdiff_t>(first) * kStereo,
                std::min(kSamplesInMessage, count - first),
                start - held + kSecond * first / kScreenRate);
  }
}

void ScreenOutput::SendSamples(const float* samples, int count, Time start) {
  ScreenMessage message;
  message.kind = MessageKind::kAudio;
  message.start = start;
  const std::span<const float> all(samples, static_cast<std::size_t>(count) * kStereo);
  const os::MutexLock guard(lock_);
  if (socket_ != nullptr) {
    // A window that does not take audio shows no frames, either.
    static_cast<void>(Send(*socket_, message,
                           {reinterpret_cast<const std::uint8_t*>(all.data()), all.size_bytes()}));
  }
}

void ScreenOutput::SetSocket(const os::MessageSocket* socket) {
  ComPtr<IMediaSample> left;
  const os::MutexLock guard(lock_);
  socket_ = socket;
  left = std::exchange(waiting_.frame, nullptr);
}

void ScreenOutput::Run() {
  qorp::ReopenDelay delay(settings_.reopen);
  while (!stop_.Wait(0)) {
    bool wasOpen = false;
    bool isClosed = false;
    std::string reason = RunSession(wasOpen, isClosed);
    if (stop_.Wait(0)) {
      break;
    }
    if (wasOpen) {
      delay.Reset();
    }
    const milliseconds wait = delay.AfterFailure();
    {
      const os::MutexLock guard(lock_);
      status_.state = isClosed ? State::kClosed : State::kFailed;
      status_.failure = reason;
    }
    observer_->OutputFailed(settings_.name, reason, isClosed ? std::nullopt : std::optional(wait));
    stop_.Wait(isClosed ? os::kInfinite : static_cast<std::uint32_t>(wait.count()));
  }
}

std::string ScreenOutput::RunSession(bool& wasOpen, bool& isClosed) {
  std::optional<Session> session;
  try {
    session.emplace(settings_);
  } catch (const std::system_error& error) {
    return std::string("its window cannot be started: ") + error.what();
  }
  const os::MessageSocket& socket = session->process.socket();
  ScreenSetup setup;
  setup.width = settings_.width;
  setup.height = settings_.height;
  setup.shapeX = settings_.pixelAspect.num;
  setup.shapeY = settings_.pixelAspect.den;
  setup.display = settings_.screen.display;
  setup.windowWidth = settings_.screen.width;
  setup.windowHeight = settings_.screen.height;
  setup.hasAudio = settings_.screen.audio ? 1 : 0;
  settings_.title.copy(setup.title, sizeof(setup.title) - 1);
  ScreenMessage message;
  message.kind = MessageKind::kSetup;
  static_cast<void>(Send(socket, message, BytesOf(setup)));
  const auto end = [&](const std::string& reason) {
    SetSocket(nullptr);
    wasOpen = session->isOpen;
    isClosed = session->isClosed;
    return reason;
  };
  std::vector<std::uint8_t> bytes;
  while (!stop_.Wait(0)) {
    for (auto limit = kLook;; limit = milliseconds(0)) {
      const auto received = socket.Receive(bytes, limit);
      if (received == os::MessageSocket::Received::kClosed) {
        return end(session->failure.empty() ? Reason(session->process.WaitForEnd(kQuitLimit))
                                            : session->failure);
      }
      if (received == os::MessageSocket::Received::kNothing) {
        break;
      }
      Handle(*session, bytes);
    }
    Copy(*session);
    if (session->asked && Clock::now() - *session->asked > settings_.answerLimit) {
      return end("its display does not answer");
    }
  }
  // The text of a console comes back only when the window closes by itself.
  message.kind = MessageKind::kQuit;
  static_cast<void>(Send(socket, message));
  end({});
  static_cast<void>(session->process.WaitForEnd(kQuitLimit));
  return {};
}

void ScreenOutput::Handle(Session& session, std::span<const std::uint8_t> bytes) {
  const std::optional<ScreenMessageView> message = ScreenMessageView::Of(bytes);
  if (!message) {
    return;
  }
  switch (message->head.kind) {
    case MessageKind::kOpened: {
      session.isOpen = true;
      session.asked.reset();
      {
        const os::MutexLock guard(lock_);
        status_.state = State::kOpen;
        ++status_.openings;
        status_.failure.clear();
      }
      SetSocket(&session.process.socket());
      observer_->OutputOpened(settings_.name, settings_.name,
                              std::exchange(isFirst_, false) ? OutputObserver::Opening::kFirst
                                                             : OutputObserver::Opening::kAgain);
      return;
    }
    case MessageKind::kShown: {
      session.asked.reset();
      const os::MutexLock guard(lock_);
      ++status_.shown;
      status_.behind = taken_ - message->head.number;
      return;
    }
    case MessageKind::kInput:
      if (settings_.takeInput) {
        settings_.takeInput(settings_.name, message->Read<ScreenInput>());
      }
      return;
    case MessageKind::kClosed:
      session.isClosed = true;
      session.failure = "its window was closed; it is opened again when the wall is started again";
      return;
    case MessageKind::kSaid:
      observer_->OutputSaid(settings_.name, message->Text());
      return;
    case MessageKind::kFailed:
      session.failure = message->Text();
      return;
    case MessageKind::kSetup:
    case MessageKind::kFrame:
    case MessageKind::kAudio:
    case MessageKind::kQuit:
      return;  // are sent by this side
  }
}

void ScreenOutput::Copy(Session& session) {
  Waiting waiting;
  {
    const os::MutexLock guard(lock_);
    waiting = std::exchange(waiting_, {});
  }
  BYTE* pixels = nullptr;
  if (!waiting.frame || FAILED(waiting.frame->GetPointer(&pixels)) ||
      waiting.frame->GetActualDataLength() < static_cast<LONG>(session.frameSize)) {
    return;
  }
  std::memcpy(ScreenFrames::Pixels(session.process.memory(), session.slot, session.frameSize),
              pixels, session.frameSize);
  waiting.frame = nullptr;  // the buffers of the canvas are few
  session.frames->slots[session.slot] = {waiting.number, waiting.start};
  if (session.frames->HandOver(session.slot)) {
    const os::MutexLock guard(lock_);
    ++status_.skipped;
  } else {
    ScreenMessage message;
    message.kind = MessageKind::kFrame;
    // A window that is not woken looks by itself.
    static_cast<void>(Send(session.process.socket(), message));
  }
  session.asked = session.asked.value_or(Clock::now());
}

}  // namespace host
