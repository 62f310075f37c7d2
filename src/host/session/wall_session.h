// WallSession: a wall at work, from its channels to the composed frames.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "host/channel/channel_source.h"
#include "host/config/wall.h"
#include "host/output/sinks.h"
#include "host/session/background.h"
#include "host/session/composer_filter.h"
#include "host/session/label_files.h"
#include "host/session/wall_clock.h"
#include "host/session/wall_outputs.h"
#include "platform/graph/filter_graph.h"

namespace host {

// Builds the graph of a wall: a source filter for each channel, the background source, the composer
// (through its library's class factory), a sink and the wall's outputs, and runs it in one of two
// ways. Live, every source has its own threads and the background is paced by the clock. Rendered,
// the wall's time is moved frame by frame: what is due is delivered, one frame is composed, and the
// output is a function of the inputs alone. The composer shows everything one second late: the
// frames of a rendered wall before that are composed and kept back, and the times that are handed
// out are those of the sources.
//
// Belongs to the application's thread.
class WallSession {
 public:
  struct Settings {
    config::Wall wall;
    std::string composerLibrary;
    qorp::log::ILogPerf* logger = nullptr;          // not owned; outlives the session
    qorp::log::ILogPerf* composerLogger = nullptr;  // likewise; null: the same
    ChannelObserver* observer = nullptr;            // not owned; outlives the session
    OutputObserver* outputObserver = nullptr;       // likewise; null: the wall has no outputs
    // Gets every composed frame besides the outputs, on the composition thread; returns at once.
    // May be null.
    CompositionSink::TakeFrame takeFrame;
    ScreenLinks screen;  // of a live wall with screens, whose program is given
    // Gets every audio packet of a slot besides the outputs, with the track whose format it has, on
    // the channel's streaming thread; returns at once. May be null.
    WallOutputs::TakePacket takeAudio;
    bool live = false;
    // How much a rendered wall decodes of its channels; less than everything for measurements only.
    DecodeStep renderStep = DecodeStep::kFull;
    PacketQueue::Limits outputQueue;
    std::chrono::milliseconds finishLimit{5'000};  // of the outputs of a live wall
  };
  struct RenderControl {
    // Of what is handed out; none: until all channels have ended and been shown.
    std::optional<Time> length;
    std::function<bool()> stop;       // asked before each frame; may be null
    std::function<bool()> cancelled;  // asked during waits for a channel or an output; may be null
    // A channel that gives nothing for longer is detached.
    std::chrono::milliseconds stallLimit{10'000};
  };
  struct Counters {
    std::uint64_t sent = 0;          // background frames that went into the composer
    std::uint64_t composed = 0;      // frames that came out and were handed out
    std::uint64_t late = 0;          // skipped because their time was over
    std::uint64_t noFreeBuffer = 0;  // skipped because every buffer was in use
  };

  // Throws GraphError, MediaError or ffmpeg::Error (the background's picture), std::runtime_error
  // (the composer's library).
  explicit WallSession(Settings settings);
  ~WallSession();
  WallSession(const WallSession&) = delete;
  WallSession& operator=(const WallSession&) = delete;

  // Starts a live wall; it runs until Stop. Throws GraphError.
  void Start();
  // Renders frame by frame and stops, also when all outputs have failed. Throws GraphError.
  void Render(const RenderControl& control);
  // Ends the wall. All readers are cancelled first; waits for none.
  void Stop();
  // After Stop: the outputs are written to their end (hurried: see OutputSet). Then waits for all
  // readers together for a limited time; those that are stuck in their sources are detached.
  // Returns how many. The destructor does the same.
  int Finish(const std::function<bool()>& hurried = {});

  // While a live wall runs. A slot is an input of the composer with its track; channels of the wall
  // file fill the first ones, the others are spare.
  std::size_t slots() const { return channels_.size(); }
  // Puts another channel into the slot, or none; Place sets its window. Waits for no source.
  void Assign(std::size_t slot, const config::Channel* channel, const ChannelControls& controls);
  void SetControls(std::size_t slot, const ChannelControls& controls);
  void SetLabel(std::size_t slot, const config::Label& label);
  // Places all windows. Returns the number of the first composed frame that shows them so, counted
  // from the wall's first one at the canvas's rate; none when too many changes are pending.
  std::optional<std::int64_t> Place(const std::vector<WindowState>& windows);
  // The channel whose audio the follow track carries, or none. Returns the number of the first
  // composed frame with it.
  std::int64_t Follow(std::optional<std::size_t> slot);
  // The channel that is heard at the screens, or none.
  void Listen(std::optional<std::size_t> slot);
  // Ends what is left of former channels; to be called now and then.
  void Tidy();

  OutputSet& outputs() { return outputs_->set(); }
  std::vector<ScreenOutput::Status> screens() const { return outputs_->screens(); }
  Counters counters() const;
  // How long composing took since the last call.
  FrameWatch::Timing TakeTiming() { return watch_->TakeTiming(); }
  // The same since the start, and when the latest frame was composed (long ago: none was). Any
  // thread, as counters.
  FrameWatch::Totals composing() const { return watch_->totals(); }
  std::chrono::steady_clock::time_point composedAt() const {
    return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(composedAt_));
  }
  Time now() const { return clock_.Now(); }
  ChannelSource& channel(std::size_t index) { return *channels_[index]; }

 private:
  void AddSlot(std::size_t slot);
  std::int64_t NumberOf(Time start) const;
  void ConnectAudio(std::size_t index, const ComposerFilter::Input& input, const std::string& what);
  ChannelSettings SettingsOf(std::size_t slot, const config::Channel& channel);
  void FollowLabel(std::size_t slot, const config::Label& label);
  std::string TimeText(Time time);
  void Take(const ComPtr<IMediaSample>& frame, Time start);
  void NotePressure(Time start);
  // False when the rendering is to end.
  bool WaitForOutputs(const RenderControl& control);
  void Connect(FeedPin& from, IPin* to, const std::string& what);
  // None when it is cancelled.
  std::optional<bool> AdvanceChannels(Time time, const RenderControl& control);
  // Start of the first frame, up to `frame`, by which everything that the channels gave was due.
  // Does not depend on when readers report their end, which may be some frames later.
  Time LastFrameWithContent(std::int64_t frame);

  const Settings settings_;
  const std::int64_t firstFrame_;  // that is handed out
  const FirstLabels firstLabels_;
  WallClock clock_;
  TimeOfDay timeOfDay_;
  std::shared_ptr<FrameWatch> watch_ = std::make_shared<FrameWatch>();
  std::atomic<std::uint64_t> composed_{0};
  std::atomic<std::chrono::steady_clock::rep> composedAt_{0};
  std::atomic<Time> firstComposed_{0};                // start of the first frame of a live wall
  const std::shared_ptr<WallPressure> pressure_;      // null of a rendered wall
  const std::shared_ptr<DecodeBudget> budget_;        // likewise
  const std::shared_ptr<DecodeBatches> batches_;      // null of a live wall
  const std::shared_ptr<SharedReceivers> receivers_;  // null of a rendered one
  const std::shared_ptr<SharedInputs> inputs_;        // likewise
  Time pressureAt_ = 0;                               // the composition thread's
  const std::shared_ptr<WindowSchedule> schedule_;
  // Outlives the graph, whose threads use it.
  std::unique_ptr<WallOutputs> outputs_;
  // The graph is destroyed first and with it every filter; then the composer's library.
  ComposerFilter composer_;
  std::vector<ComPtr<WallWindow>> windows_;
  std::vector<ComPtr<ChannelSource>> channels_;
  std::vector<bool> detached_;  // channels that a rendering no longer waits for
  ComPtr<BackgroundSource> background_;
  ComPtr<CompositionSink> sink_;
  ComPtr<AudioSink> audioSink_;  // null where nothing uses the audio
  ComPtr<FilterGraph> graph_;
  LabelFiles labelFiles_;  // is destroyed first: it hands texts to the channels
};

}  // namespace host
