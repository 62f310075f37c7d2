#include "host/output/screen/window/screen_window.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <SDL.h>

#include "host/output/screen/screen_input.h"
#include "host/output/screen/screen_protocol.h"
#include "host/output/screen/window/speaker.h"
#include "platform/os/companion_process.h"

namespace host {
namespace {

// Owning holders for SDL's handles.
namespace sdl {

struct DestroyWindow {
  void operator()(SDL_Window* window) const noexcept { SDL_DestroyWindow(window); }
};
struct DestroyRenderer {
  void operator()(SDL_Renderer* renderer) const noexcept { SDL_DestroyRenderer(renderer); }
};
struct DestroyTexture {
  void operator()(SDL_Texture* texture) const noexcept { SDL_DestroyTexture(texture); }
};

using Window = std::unique_ptr<SDL_Window, DestroyWindow>;
using Renderer = std::unique_ptr<SDL_Renderer, DestroyRenderer>;
using Texture = std::unique_ptr<SDL_Texture, DestroyTexture>;

// SDL itself, from its start to its end.
class Library {
 public:
  Library() = default;
  ~Library() { SDL_Quit(); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
};

}  // namespace sdl

using Kind = ScreenMessage::Kind;
using Key = ScreenInput::Kind;

// How often input is polled while no frame comes.
constexpr std::chrono::milliseconds kPoll{8};
constexpr Uint32 kPointerHides = 3'000;  // ms after its last movement
constexpr int kDone = 0;
constexpr int kNoWall = 64;

// The window has ended by itself, for this reason.
class WindowError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

[[noreturn]] void Fail(const std::string& what) {
  const std::string reason = SDL_GetError();
  throw WindowError(what + (reason.empty() ? "" : ": " + reason));
}

constexpr std::pair<SDL_Keycode, Key> kKeys[] = {
    {SDLK_RETURN, Key::kEnter}, {SDLK_KP_ENTER, Key::kEnter}, {SDLK_ESCAPE, Key::kEscape},
    {SDLK_LEFT, Key::kLeft},    {SDLK_RIGHT, Key::kRight},    {SDLK_UP, Key::kUp},
    {SDLK_DOWN, Key::kDown},    {SDLK_l, Key::kNextLayout}};

std::optional<ScreenInput> InputOf(const SDL_KeyboardEvent& key) {
  ScreenInput input;
  for (const auto& [code, kind] : kKeys) {
    if (key.keysym.sym == code) {
      input.kind = kind;
      return input;
    }
  }
  // Digits by their place: on some keyboards they need the shift key.
  const SDL_Scancode code = key.keysym.scancode;
  if (code >= SDL_SCANCODE_1 && code <= SDL_SCANCODE_9) {
    input.digit = code - SDL_SCANCODE_1 + 1;
  } else if (code >= SDL_SCANCODE_KP_1 && code <= SDL_SCANCODE_KP_9) {
    input.digit = code - SDL_SCANCODE_KP_1 + 1;
  } else {
    return std::nullopt;
  }
  input.kind = (key.keysym.mod & KMOD_CTRL) != 0 ? Key::kLayout : Key::kChannel;
  return input;
}

// The window on its display.
class ScreenWindow {
 public:
  // Throws WindowError.
  explicit ScreenWindow(const ScreenSetup& setup) : setup_(setup) {
    // The wall handles signals; the display must not sleep.
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    SDL_SetHint(SDL_HINT_VIDEO_ALLOW_SCREENSAVER, "0");
    SDL_SetHint(SDL_HINT_VIDEO_MINIMIZE_ON_FOCUS_LOSS, "0");
    SDL_SetHint(SDL_HINT_VIDEO_X11_NET_WM_BYPASS_COMPOSITOR, "0");
    SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
    SDL_SetHint(SDL_HINT_MOUSE_FOCUS_CLICKTHROUGH, "1");
    SDL_SetHint(SDL_HINT_APP_NAME, "tavrel");
    if (SDL_Init(SDL_INIT_VIDEO) != 0) {
      Fail("there is no display");
    }
    const int displays = SDL_GetNumVideoDisplays();
    if (setup.display >= displays) {
      throw WindowError("there is no display " + std::to_string(setup.display) + "; " +
                        std::to_string(displays) + (displays == 1 ? " is" : " are") + " there");
    }
    const bool isWindow = setup.windowWidth > 0;
    const int centre = SDL_WINDOWPOS_CENTERED_DISPLAY(static_cast<unsigned>(setup.display));
    SDL_Rect place{centre, centre, setup.windowWidth, setup.windowHeight};
    // Without a window manager a full-screen window stays as large as it is made.
    if (!isWindow && SDL_GetDisplayBounds(setup.display, &place) != 0) {
      Fail("its display has no size");
    }
    const Uint32 kind = isWindow ? static_cast<Uint32>(SDL_WINDOW_RESIZABLE)
                                 : static_cast<Uint32>(SDL_WINDOW_FULLSCREEN_DESKTOP);
    window_.reset(SDL_CreateWindow(setup.title, place.x, place.y, place.w, place.h,
                                   SDL_WINDOW_ALLOW_HIGHDPI | kind));
    if (!window_) {
      Fail("its window cannot be opened");
    }
    // The colours of the composed frames.
    SDL_SetYUVConversionMode(SDL_YUV_CONVERSION_BT601);
    renderer_.reset(SDL_CreateRenderer(window_.get(), -1,
                                       SDL_RENDERER_ACCELERATED | SDL_RENDERER_PRESENTVSYNC));
    if (!renderer_) {
      renderer_.reset(SDL_CreateRenderer(window_.get(), -1, SDL_RENDERER_SOFTWARE));
    }
    if (!renderer_) {
      Fail("nothing can be drawn into its window");
    }
    MakeTexture();
  }

  // planes: of a frame.
  void Load(const std::uint8_t* planes) {
    const std::size_t luma =
        static_cast<std::size_t>(setup_.width) * static_cast<std::size_t>(setup_.height);
    const std::uint8_t* const v = planes + luma;
    const std::uint8_t* const u = v + luma / 4;
    if (SDL_UpdateYUVTexture(texture_.get(), nullptr, planes, setup_.width, u, setup_.width / 2, v,
                             setup_.width / 2) != 0) {
      Fail("its display takes no frame");
    }
    hasFrame_ = true;
  }

  // Draws the frame that was loaded last; until then the window is black.
  void Draw() {
    SDL_SetRenderDrawColor(renderer_.get(), 0, 0, 0, SDL_ALPHA_OPAQUE);
    SDL_RenderClear(renderer_.get());
    if (hasFrame_) {
      const SDL_Rect place = Place();
      SDL_RenderCopy(renderer_.get(), texture_.get(), nullptr, &place);
    }
    SDL_RenderPresent(renderer_.get());
  }

  // The pixel of the canvas at a point of the window; none beside it. x, y: in the display's units.
  std::optional<SDL_Point> CanvasPoint(int x, int y) const {
    int width = 0;
    int height = 0;
    SDL_GetWindowSize(window_.get(), &width, &height);
    const SDL_Rect place = Place();
    const auto [pixelsX, pixelsY] = Pixels();
    if (width <= 0 || height <= 0 || place.w <= 0 || place.h <= 0) {
      return std::nullopt;
    }
    const SDL_Point point{x * pixelsX / width, y * pixelsY / height};
    if (SDL_PointInRect(&point, &place) == SDL_FALSE) {
      return std::nullopt;
    }
    return SDL_Point{(point.x - place.x) * setup_.width / place.w,
                     (point.y - place.y) * setup_.height / place.h};
  }

  // At the start, and when the graphics driver has lost its contents.
  void MakeTexture() {
    texture_.reset(SDL_CreateTexture(renderer_.get(), SDL_PIXELFORMAT_YV12,
                                     SDL_TEXTUREACCESS_STREAMING, setup_.width, setup_.height));
    if (!texture_) {
      Fail("its display cannot hold a frame of the wall");
    }
    hasFrame_ = false;
  }

 private:
  struct Size {
    int width = 0;
    int height = 0;
  };
  Size Pixels() const {
    Size size;
    SDL_GetRendererOutputSize(renderer_.get(), &size.width, &size.height);
    return size;
  }

  // Where the frame is drawn: as large as the window allows, in the shape of the canvas.
  SDL_Rect Place() const {
    const auto [width, height] = Pixels();
    const double shape = static_cast<double>(setup_.width) * setup_.shapeX /
                         (static_cast<double>(setup_.height) * setup_.shapeY);
    SDL_Rect place{0, 0, width, height};
    if (width > height * shape) {
      place.w = static_cast<int>(std::lround(height * shape));
    } else {
      place.h = static_cast<int>(std::lround(width / shape));
    }
    place.x = (width - place.w) / 2;
    place.y = (height - place.h) / 2;
    return place;
  }

  const ScreenSetup setup_;
  const sdl::Library library_;
  sdl::Window window_;
  sdl::Renderer renderer_;
  sdl::Texture texture_;
  bool hasFrame_ = false;
};

// The process: messages of the wall, input of the window.
class ScreenProcess {
 public:
  explicit ScreenProcess(os::CompanionSide& wall) : wall_(wall) {}

  void Run() {
    const std::optional<ScreenMessageView> first = Receive(std::chrono::milliseconds(5'000));
    if (!first || first->head.kind != Kind::kSetup) {
      return;
    }
    setup_ = first->Read<ScreenSetup>();
    setup_.title[sizeof(setup_.title) - 1] = '\0';
    frameSize_ =
        static_cast<std::size_t>(setup_.width) * static_cast<std::size_t>(setup_.height) * 3 / 2;
    try {
      Show();
    } catch (const WindowError& error) {
      Tell(Kind::kFailed, error.what());
    }
  }

 private:
  std::optional<ScreenMessageView> Receive(std::chrono::milliseconds limit) {
    const auto received = wall_.socket.Receive(bytes_, limit);
    isOver_ = isOver_ || received == os::MessageSocket::Received::kClosed;
    return received == os::MessageSocket::Received::kMessage ? ScreenMessageView::Of(bytes_)
                                                             : std::nullopt;
  }
  void Tell(Kind kind, const std::string& text = {}) {
    ScreenMessage message;
    message.kind = kind;
    static_cast<void>(Send(wall_.socket, message, BytesOf(text)));
  }
  void TellShown(std::int64_t number) {
    ScreenMessage message;
    message.kind = Kind::kShown;
    message.number = number;
    static_cast<void>(Send(wall_.socket, message));
  }
  void Tell(const ScreenInput& input) {
    ScreenMessage message;
    message.kind = Kind::kInput;
    static_cast<void>(Send(wall_.socket, message, BytesOf(input)));
  }

  void Show() {
    ScreenWindow window(setup_);
    std::unique_ptr<Speaker> speaker;
    if (setup_.hasAudio != 0) {
      try {
        speaker = std::make_unique<Speaker>();
      } catch (const std::runtime_error& error) {
        Tell(Kind::kSaid, std::string("it is silent, there is no audio device: ") + error.what());
      }
    }
    window.Draw();
    Tell(Kind::kOpened);
    ScreenFrames& frames = *reinterpret_cast<ScreenFrames*>(wall_.memory.bytes().data());
    std::size_t slot = ScreenFrames::kOfWindow;
    while (!isOver_) {
      TakeMessages(speaker.get());
      if (frames.TakeOver(slot)) {
        window.Load(ScreenFrames::Pixels(wall_.memory.bytes(), slot, frameSize_));
        window.Draw();
        if (speaker) {
          speaker->FrameShown(frames.slots[slot].start);
        }
        TellShown(frames.slots[slot].number);
      }
      TakeEvents(window);
    }
  }

  void TakeMessages(Speaker* speaker) {
    for (auto limit = kPoll; !isOver_; limit = std::chrono::milliseconds(0)) {
      const std::optional<ScreenMessageView> message = Receive(limit);
      if (!message) {
        return;
      }
      if (message->head.kind == Kind::kAudio && speaker != nullptr) {
        std::vector<float> samples(message->rest.size() / sizeof(float));
        std::memcpy(samples.data(), message->rest.data(), samples.size() * sizeof(float));
        speaker->Push(samples, message->head.start);
      } else if (message->head.kind == Kind::kQuit) {
        isOver_ = true;
      }
    }
  }

  void TakeEvents(ScreenWindow& window) {
    SDL_Event event;
    while (!isOver_ && SDL_PollEvent(&event) != 0) {
      switch (event.type) {
        case SDL_QUIT:
          Tell(Kind::kClosed);
          isOver_ = true;
          break;
        case SDL_DISPLAYEVENT:
          if (event.display.event == SDL_DISPLAYEVENT_DISCONNECTED &&
              setup_.display >= SDL_GetNumVideoDisplays()) {
            throw WindowError("its display was disconnected");
          }
          break;
        case SDL_WINDOWEVENT:
          if (event.window.event == SDL_WINDOWEVENT_EXPOSED ||
              event.window.event == SDL_WINDOWEVENT_SIZE_CHANGED) {
            window.Draw();
          }
          break;
        case SDL_RENDER_TARGETS_RESET:
        case SDL_RENDER_DEVICE_RESET:
          window.MakeTexture();
          break;
        case SDL_MOUSEMOTION:
          movedAt_ = SDL_GetTicks();
          SDL_ShowCursor(SDL_ENABLE);
          break;
        case SDL_MOUSEBUTTONDOWN:
          if (event.button.button == SDL_BUTTON_LEFT) {
            Click(window, event.button);
          }
          break;
        case SDL_KEYDOWN:
          if (const auto input = InputOf(event.key); input && event.key.repeat == 0) {
            Tell(*input);
          }
          break;
        default:
          break;
      }
    }
    if (SDL_GetTicks() - movedAt_ > kPointerHides) {
      SDL_ShowCursor(SDL_DISABLE);
    }
  }

  void Click(const ScreenWindow& window, const SDL_MouseButtonEvent& button) {
    const std::optional<SDL_Point> point = window.CanvasPoint(button.x, button.y);
    if (point) {
      ScreenInput input;
      input.kind = button.clicks % 2 == 0 ? Key::kDoubleClick : Key::kClick;
      input.x = point->x;
      input.y = point->y;
      Tell(input);
    }
  }

  os::CompanionSide& wall_;
  ScreenSetup setup_;
  std::size_t frameSize_ = 0;  // bytes
  std::vector<std::uint8_t> bytes_;
  Uint32 movedAt_ = 0;  // the pointer
  bool isOver_ = false;
};

}  // namespace

int ShowScreenWindow() {
  std::optional<os::CompanionSide> wall;
  try {
    wall.emplace();
  } catch (const std::system_error&) {
    return kNoWall;
  }
  ScreenProcess(*wall).Run();
  return kDone;
}

}  // namespace host
