#include <array>
#include <optional>
#include <string>
#include <vector>

#include "host/config/sections.h"

namespace host::config {

namespace {

std::optional<Window> WindowOf(const toml::node& node, const Canvas& canvas,
                               Diagnostics& diagnostics) {
  const toml::array* const array = node.as_array();
  if (array == nullptr || array->size() != 4 || !array->is_homogeneous<std::int64_t>()) {
    diagnostics.Error(PositionOf(node),
                      "a window must be four whole numbers: [x, y, width, height]");
    return {};
  }
  std::array<std::int64_t, 4> numbers{};
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    numbers[i] = array->get(i)->value<std::int64_t>().value_or(0);
    if (numbers[i] < 0 || numbers[i] > kLargestCanvas || numbers[i] % 2 != 0) {
      diagnostics.Error(PositionOf(*array->get(i)),
                        "must be an even number from 0 to " + std::to_string(kLargestCanvas));
      return {};
    }
  }
  const Window window{static_cast<int>(numbers[0]), static_cast<int>(numbers[1]),
                      static_cast<int>(numbers[2]), static_cast<int>(numbers[3])};
  if (window.width < kSmallestCanvas || window.height < kSmallestCanvas ||
      !CanBeSelected(window, canvas)) {
    diagnostics.Error(PositionOf(node),
                      "a window of a layout has 16x16 pixels at least and lies inside the canvas, "
                      "one pixel away from its right and bottom edges");
    return {};
  }
  return window;
}

Layout ReadLayout(TableReader& reader, const std::string& name, const Canvas& canvas) {
  Layout layout;
  layout.name = name;
  const toml::node* const windows = reader.Find("windows");
  const toml::array* const places = windows != nullptr ? windows->as_array() : nullptr;
  if (places == nullptr || places->empty() || places->size() > kMaxChannels) {
    reader.diagnostics().Error(windows != nullptr ? PositionOf(*windows) : reader.position(),
                               reader.title() + " needs \"windows\": 1 to " +
                                   std::to_string(kMaxChannels) +
                                   " places, each [x, y, width, height]");
  } else {
    for (const toml::node& node : *places) {
      if (const auto window = WindowOf(node, canvas, reader.diagnostics())) {
        layout.places.push_back({*window, {}});
      }
    }
  }
  if (const toml::node* const channels = reader.Find("channels")) {
    const toml::array* const names = channels->as_array();
    if (names == nullptr || !names->is_homogeneous<std::string>() ||
        names->size() > layout.places.size()) {
      reader.Error("channels",
                   "must be names of channels, at most one for each window; \"\" for the next one "
                   "in order");
    } else {
      for (std::size_t i = 0; i < names->size(); ++i) {
        layout.places[i].channel = names->get(i)->value<std::string>().value_or("");
      }
    }
  }
  reader.Finish();
  return layout;
}

}  // namespace

std::vector<Layout> ReadLayouts(TableReader& root, const Canvas& canvas) {
  std::vector<Layout> layouts;
  const toml::table* const table = root.Table("layout");
  if (table == nullptr) {
    return layouts;
  }
  for (const auto& [key, node] : *table) {
    const std::string name(key.str());
    const Position position{key.source().begin.line, key.source().begin.column};
    const toml::table* const layout = node.as_table();
    if (layout == nullptr || !IsLayoutName(name) || IsReservedLayout(name)) {
      root.diagnostics().Error(
          position, layout == nullptr ? "a layout is a section [layout.NAME]"
                    : IsReservedLayout(name)
                        ? "\"" + name + "\" is the name of a layout that every wall has"
                        : "a layout's name has up to 64 letters, digits, blanks, _ - + or .");
      continue;
    }
    TableReader reader(*layout, "[layout." + name + "]", root.diagnostics());
    layouts.push_back(ReadLayout(reader, name, canvas));
  }
  return layouts;
}

}  // namespace host::config
