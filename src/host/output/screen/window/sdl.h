// Owning holders for SDL's handles.
#pragma once

#include <memory>

#include <SDL.h>

namespace host::sdl {

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

}  // namespace host::sdl
