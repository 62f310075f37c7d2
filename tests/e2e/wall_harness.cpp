#include "tests/e2e/wall_harness.h"

#include "host/cli/demo/clip_writer.h"
#include "host/config/value_text.h"
#include "platform/os/process.h"
#include "tests/support/wait_until.h"

namespace e2e {

namespace {

bool NothingIsLeft() {
  const auto library = os::Module::Load(TAVREL_COMPOSER_LIBRARY);
  auto* const canUnload = library->Find<HRESULT()>("DllCanUnloadNow");
  return CUnknown::ObjectsActive() == 0 && canUnload != nullptr && canUnload() == S_OK;
}

}  // namespace

void WriteCountingClip(const std::filesystem::path& file, int width, int height,
                       const std::string& rate, int pictures, const std::string& audio) {
  host::ClipRecipe recipe;
  recipe.name = file.stem().string();
  recipe.pictures = "color=black:size=" + std::to_string(width) + "x" + std::to_string(height) +
                    ":rate=" + rate + ",format=yuv420p,geq=lum='20+2*mod(N,100)':cb=128:cr=128";
  recipe.videoOptions = {{"qp", "0"}, {"preset", "ultrafast"}};
  recipe.audio = audio;
  recipe.length = host::FrameStart(pictures, *host::config::ParseFrameRate(rate));
  host::WriteClip(recipe, file);
}

int PictureNumber(std::uint8_t luma) {
  return luma >= 20 && luma <= 218 && luma % 2 == 0 ? (luma - 20) / 2 : -1;
}

TestWall::TestWall(int width, int height) {
  wall_.canvas.width = width;
  wall_.canvas.height = height;
  wall_.canvas.aspect = host::Reduced(host::Ratio{width, height});  // square pixels
  wall_.canvas.background.kind = host::config::Background::Kind::kColour;
  wall_.canvas.background.top = {0, 0, 0};  // luma 16
}

void TestWall::AddChannel(const std::string& source, host::config::Window window) {
  host::config::Channel channel;
  channel.name = std::filesystem::path(source).stem().string();
  channel.source = source;
  channel.window = window;
  channel.label.source = host::config::Label::Source::kNone;
  channel.options.audio.meter = false;
  for (host::config::Alarm* const alarm :
       {&channel.options.alarm.loss, &channel.options.alarm.black, &channel.options.alarm.freeze,
        &channel.options.alarm.silence, &channel.options.alarm.clipping}) {
    alarm->enabled = false;
  }
  wall_.channels.push_back(channel);
}

host::WallSession::Settings TestWall::SessionSettings() {
  host::WallSession::Settings settings;
  settings.wall = wall_;
  settings.composerLibrary = TAVREL_COMPOSER_LIBRARY;
  settings.logger = &logger_;
  settings.observer = &channels_;
  settings.outputObserver = &outputs_;
  return settings;
}

std::vector<Frame> TestWall::Render(std::optional<host::Time> length,
                                    std::chrono::milliseconds stallLimit,
                                    const std::function<void(host::WallSession&)>& beforeFrame) {
  std::vector<Frame> frames;  // the composition thread's, until the session is gone
  host::WallSession::Settings settings = SessionSettings();
  settings.takeFrame = [&](const ComPtr<IMediaSample>& sample, host::Time time) {
    BYTE* pixels = nullptr;
    sample->GetPointer(&pixels);
    frames.push_back({time, {pixels, pixels + sample->GetActualDataLength()}});
  };
  host::WallSession session(std::move(settings));
  host::WallSession::RenderControl control;
  control.length = length;
  control.stallLimit = stallLimit;
  control.stop = [&] {
    if (beforeFrame) {
      beforeFrame(session);
    }
    return false;
  };
  session.Render(control);
  return frames;
}

std::unique_ptr<host::WallSession> TestWall::MakeLive(host::CompositionSink::TakeFrame takeFrame) {
  host::WallSession::Settings settings = SessionSettings();
  settings.takeFrame = std::move(takeFrame);
  settings.live = true;
  return std::make_unique<host::WallSession>(std::move(settings));
}

std::vector<host::OutputSet::Status> TestWall::RenderInto(
    const std::vector<host::config::Output>& outputs, std::optional<host::Time> length) {
  wall_.outputs = outputs;
  host::WallSession session(SessionSettings());
  host::WallSession::RenderControl control;
  control.length = length;
  control.stallLimit = std::chrono::seconds(60);
  session.Render(control);
  session.Finish();
  return session.outputs().status();
}

std::uint8_t TestWall::Luma(const Frame& frame, int x, int y) const {
  return frame.pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(wall_.canvas.width) +
                      static_cast<std::size_t>(x)];
}

void WallTest::TearDown() {
  EXPECT_TRUE(NothingIsLeft()) << "a sample, an allocator, a pin or a filter was leaked";
}

std::unique_ptr<host::WallSession> WallTest::RunLiveUntil(
    TestWall& wall, host::WallSession::Settings settings, const char* what,
    const std::function<bool(host::OutputSet&)>& isSo) {
  settings.live = true;
  auto session = std::make_unique<host::WallSession>(std::move(settings));
  session->Start();
  if (!WaitUntil(what, [&] { return isSo(session->outputs()); })) {
    ADD_FAILURE() << testing::PrintToString(wall.outputs().failures());
  }
  session->Stop();
  session->Finish();
  return session;
}

}  // namespace e2e
