#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "host/config/layout.h"
#include "host/config/sections.h"
#include "host/config/table_reader.h"
#include "host/config/url.h"
#include "host/config/wall_file.h"

namespace host::config {

namespace {

constexpr int kMaxMistakes = 20;

struct LineRange {
  std::size_t begin = 0;
  std::size_t end = 0;  // of its line end
};

LineRange FindLine(const std::string& text, std::size_t line) {
  LineRange range;
  for (std::size_t i = 1; i < line; ++i) {
    const std::size_t next = text.find('\n', range.begin);
    if (next == std::string::npos) {
      break;
    }
    range.begin = next + 1;
  }
  const std::size_t end = text.find('\n', range.begin);
  range.end = end == std::string::npos ? text.size() : end;
  return range;
}

std::string_view Between(std::string_view text, std::string_view before, std::string_view after) {
  const std::size_t start = text.find(before);
  if (start == std::string_view::npos) {
    return {};
  }
  text.remove_prefix(start + before.size());
  return text.substr(0, text.rfind(after));
}

// The parser's message, shortened; in plain words for what is given twice.
std::string Message(std::string_view description) {
  constexpr std::string_view kTwice = "cannot redefine existing ";
  if (const std::size_t twice = description.find(kTwice); twice != std::string_view::npos) {
    const std::string name(Between(description.substr(twice), "'", "'"));
    const bool isTable = description.substr(twice + kTwice.size()).starts_with("table") ||
                         description.find("table header") != std::string_view::npos;
    return isTable ? "[" + name + "] is given twice" : "\"" + name + "\" is given twice";
  }
  if (description.find("unescaped control characters") != std::string_view::npos) {
    return "not valid TOML: the text is not closed in its line";
  }
  constexpr std::string_view kStart = "Error while parsing ";
  if (description.starts_with(kStart)) {
    description.remove_prefix(kStart.size());
  }
  std::string message = "not valid TOML: ";
  for (const char c : description) {
    message += c == '\n' ? std::string("line end") : std::string(1, c);
  }
  return message;
}

bool IsKeyValueLine(std::string_view line) {
  const std::size_t first = line.find_first_not_of(" \t");
  return first != std::string_view::npos && line[first] != '[' && line[first] != '#' &&
         line.find('=') != std::string_view::npos;
}

struct TomlFile {
  // What could be read; nothing when the mistakes leave too little to continue with.
  std::optional<toml::table> table;
  // False when lines with mistakes were left out: what seems to be missing may be there.
  bool complete = true;
};

// A mistake within a "key = value" line is reported and the line left out, so that one run reports
// all of them; one in a table's header ends the reading, because what follows has no table.
TomlFile ParseToml(const std::string& text, Diagnostics& diagnostics) {
  TomlFile file;
  std::string remaining = text;
  for (int mistakes = 0; mistakes < kMaxMistakes; ++mistakes) {
    try {
      file.table = toml::parse(std::string_view(remaining));
      return file;
    } catch (const toml::parse_error& error) {
      const std::string_view description = error.description();
      const bool atEnd = description.find("end-of-file") != std::string_view::npos;
      if (atEnd && !file.complete) {
        // Something that opens in a line that was left out, or that was reported already.
        return file;
      }
      file.complete = false;
      const toml::source_position at = error.source().begin;
      const LineRange range = FindLine(remaining, at.line);
      const std::string_view line =
          std::string_view(remaining).substr(range.begin, range.end - range.begin);
      Position position{at.line, at.column};
      if (description.find("cannot redefine") != std::string_view::npos) {
        const std::size_t first = line.find_first_not_of(" \t");
        position.column = first == std::string_view::npos ? 1 : first + 1;
      }
      diagnostics.Error(position, Message(description));
      if (!IsKeyValueLine(line)) {
        return file;
      }
      remaining.replace(range.begin, range.end - range.begin, line.size(), ' ');
    }
  }
  return file;
}

std::string Numbered(const char* what, std::size_t number) {
  return std::string(what) + " " + std::to_string(number);
}

// Given windows are checked against the canvas; open ones are laid out. True when none is given.
bool PlaceWindows(std::vector<ChannelEntry>& entries, const Wall& wall, Position wallPosition,
                  Diagnostics& diagnostics) {
  const Canvas& canvas = wall.canvas;
  const bool given = std::any_of(entries.begin(), entries.end(), [](const ChannelEntry& entry) {
    return entry.window.has_value();
  });
  if (!given) {
    const bool labels = std::any_of(entries.begin(), entries.end(), [](const ChannelEntry& entry) {
      return entry.channel.label.source != Label::Source::kNone;
    });
    const auto windows = LayOutWindows(canvas, wall.rules, entries.size(), labels);
    if (!windows) {
      diagnostics.Error(wallPosition, "the canvas of " + std::to_string(canvas.width) + "x" +
                                          std::to_string(canvas.height) + " has no room for " +
                                          std::to_string(entries.size()) +
                                          " windows; make it larger, or gap, margin and label_room "
                                          "smaller, or give each channel a window");
      return true;
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
      entries[i].channel.window = (*windows)[i];
    }
    return true;
  }
  for (ChannelEntry& entry : entries) {
    if (!entry.window) {
      continue;  // reported by the caller
    }
    const Window& window = *entry.window;
    entry.channel.window = window;
    const std::string name = "the window of \"" + entry.channel.name + "\"";
    const int right = window.x + window.width;
    const int bottom = window.y + window.height;
    if (right <= 0 || bottom <= 0 || window.x >= canvas.width || window.y >= canvas.height) {
      diagnostics.Warning(entry.windowPosition,
                          name + " lies outside the canvas and is never seen");
    }
    const bool isInForce = wall.layout.empty() || wall.layout == "file";
    if (entry.channel.selected && isInForce && !CanBeSelected(window, canvas)) {
      diagnostics.Error(
          entry.windowPosition,
          name +
              " is selected, so it must lie inside the canvas and keep at least one pixel from "
              "its right and bottom edges: x and y from 0, x + width below " +
              std::to_string(canvas.width) + " (it is " + std::to_string(right) +
              "), y + height below " + std::to_string(canvas.height) + " (it is " +
              std::to_string(bottom) + "); the frame of a selected window cannot be drawn there");
    }
  }
  return false;
}

// Of two windows on one place, the later one hides the other.
void CheckOverlaps(const std::vector<ChannelEntry>& entries, Diagnostics& diagnostics) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    for (std::size_t k = 0; k < i; ++k) {
      const auto& a = entries[k].window;
      const auto& b = entries[i].window;
      if (a && b && entries[k].channel.options.enabled && entries[i].channel.options.enabled &&
          a->x < b->x + b->width && b->x < a->x + a->width && a->y < b->y + b->height &&
          b->y < a->y + a->height) {
        diagnostics.Warning(entries[i].windowPosition,
                            "the window of \"" + entries[i].channel.name +
                                "\" overlaps that of \"" + entries[k].channel.name + "\"");
        break;
      }
    }
  }
}

void CheckNames(const std::vector<ChannelEntry>& entries, Diagnostics& diagnostics) {
  std::map<std::string, std::size_t> seen;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const auto [first, isNew] = seen.emplace(entries[i].channel.name, i + 1);
    if (!isNew) {
      diagnostics.Error(entries[i].namePosition, "the name \"" + entries[i].channel.name +
                                                     "\" is that of channel " +
                                                     std::to_string(first->second) + " already");
    }
  }
}

// A window that is given but wrong was reported already.
void CheckWindowsGiven(const std::vector<const toml::table*>& tables,
                       const std::vector<ChannelEntry>& entries, Diagnostics& diagnostics) {
  const bool any = std::any_of(tables.begin(), tables.end(),
                               [](const toml::table* table) { return table->contains("window"); });
  for (std::size_t i = 0; any && i < entries.size(); ++i) {
    if (!tables[i]->contains("window")) {
      diagnostics.Error(entries[i].position,
                        "\"" + entries[i].channel.name +
                            "\" has no window, but others have: give every channel one, or none");
    }
  }
}

void ReadChannels(TableReader& root, const FileContext& context, const ChannelOptions& defaults,
                  Position wallPosition, Wall& wall, Diagnostics& diagnostics) {
  const std::vector<const toml::table*> tables = root.Tables("channel");
  if (root.Find("channel") == nullptr && context.complete) {
    diagnostics.Error(wallPosition, "the wall has no channel; each is a [[channel]] with a source");
  }
  if (tables.size() > kMaxChannels) {
    diagnostics.Error(PositionOf(*tables[kMaxChannels]),
                      "a wall has at most " + std::to_string(kMaxChannels) + " channels, not " +
                          std::to_string(tables.size()));
  }
  std::vector<ChannelEntry> entries;
  for (std::size_t i = 0; i < tables.size(); ++i) {
    TableReader reader(*tables[i], Numbered("channel", i + 1), diagnostics);
    entries.push_back(ReadChannel(reader, context, NewChannel(i + 1, defaults)));
  }
  CheckNames(entries, diagnostics);
  if (!entries.empty() && entries.size() <= kMaxChannels) {
    if (context.complete) {
      CheckWindowsGiven(tables, entries, diagnostics);
    }
    wall.placesWindows = PlaceWindows(entries, wall, wallPosition, diagnostics);
    CheckOverlaps(entries, diagnostics);
  }
  for (ChannelEntry& entry : entries) {
    wall.channels.push_back(std::move(entry.channel));
  }
  const std::size_t slots = wall.channels.size() + static_cast<std::size_t>(wall.spare);
  if (tables.size() <= kMaxChannels && slots > kMaxChannels) {
    diagnostics.Error(wall.canvas.places.at("spare"),
                      "\"spare\" and the channels of the file are " + std::to_string(slots) +
                          " together; a wall has at most " + std::to_string(kMaxChannels));
  }
}

// Which layouts the book beside the file holds is not known here.
void CheckLayout(Wall& wall, Diagnostics& diagnostics) {
  const auto place = wall.canvas.places.find("layout");
  if (wall.layout == "solo" || (wall.layout == "file" && wall.placesWindows)) {
    diagnostics.Error(place->second, "\"layout\" cannot be \"" + wall.layout + "\"" +
                                         (wall.placesWindows && wall.layout == "file"
                                              ? ": no channel gives its window"
                                              : ": a wall begins with all of its channels"));
  } else if (!wall.layout.empty() && !IsLayoutName(wall.layout)) {
    diagnostics.Error(place->second,
                      "\"layout\" must be a layout's name: up to 64 letters, digits, blanks, _ - + "
                      "or .");
  }
  if (wall.layout.empty()) {
    wall.layout = wall.placesWindows ? "auto" : "file";
  }
}

}  // namespace

std::string ResolveSource(const std::string& source, const FileContext& context) {
  const std::optional<std::string> path = LocalPath(source);
  return path ? ResolvePath(*path, context).string() : source;
}

std::filesystem::path ResolvePath(const std::string& path, const FileContext& context) {
  return (context.folder / path).lexically_normal();
}

WallFile ParseWall(const std::string& text, const std::filesystem::path& folder) {
  WallFile file;
  const TomlFile toml = ParseToml(text, file.diagnostics);
  if (toml.table) {
    const FileContext context{folder, toml.complete};
    TableReader root(*toml.table, "a wall file", file.diagnostics);
    Position wallPosition;
    if (const toml::table* wall = root.Table("wall")) {
      wallPosition = PositionOf(*wall);
      TableReader reader(*wall, "[wall]", file.diagnostics);
      ReadCanvas(reader, context, file.wall);
    }
    ChannelOptions& defaults = file.wall.defaults;
    if (const toml::table* table = root.Table("defaults")) {
      TableReader reader(*table, "[defaults]", file.diagnostics);
      ReadChannelOptions(reader, defaults);
      reader.Finish();
    }
    ReadChannels(root, context, defaults, wallPosition, file.wall, file.diagnostics);
    file.wall.layouts = ReadLayouts(root, file.wall.canvas);
    CheckLayout(file.wall, file.diagnostics);
    if (const toml::table* table = root.Table("log")) {
      TableReader reader(*table, "[log]", file.diagnostics);
      ReadLog(reader, context, file.wall.log);
    }
    if (const toml::table* table = root.Table("http")) {
      TableReader reader(*table, "[http]", file.diagnostics);
      ReadHttp(reader, context, file.wall.canvas, file.wall.http);
    }
    if (const toml::table* table = root.Table("control")) {
      TableReader reader(*table, "[control]", file.diagnostics);
      ReadControl(reader, context, file.wall.control);
    }
    if (const toml::table* table = root.Table("tally")) {
      TableReader reader(*table, "[tally]", file.diagnostics);
      ReadTally(reader, file.wall);
    }
    const std::vector<const toml::table*> outputs = root.Tables("output");
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      TableReader reader(*outputs[i], Numbered("output", i + 1), file.diagnostics);
      if (IsScreen(*outputs[i])) {
        file.wall.screens.push_back(ReadScreen(reader));
      } else {
        file.wall.outputs.push_back(ReadOutput(reader, context));
      }
    }
    root.Finish();
  }
  file.diagnostics.Sort();
  return file;
}

ChannelText ParseChannel(const std::string& text, const std::filesystem::path& folder,
                         Channel base) {
  ChannelText result;
  const TomlFile toml = ParseToml(text, result.diagnostics);
  if (toml.table) {
    TableReader reader(*toml.table, "the channel", result.diagnostics);
    ChannelEntry entry = ReadChannel(reader, {folder, toml.complete}, std::move(base));
    result.channel = std::move(entry.channel);
    result.window = entry.window;
    result.isNamed = entry.named;
  }
  return result;
}

std::string QuotedToml(const std::string& text) {
  constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (byte < 0x20 || byte == 0x7F) {
      quoted += "\\u00";
      quoted += kHex[byte >> 4];
      quoted += kHex[byte & 15];
    } else {
      quoted += c;
    }
  }
  return quoted + '"';
}

LayoutsText ParseLayouts(const std::string& text, const Canvas& canvas) {
  LayoutsText result;
  const TomlFile toml = ParseToml(text, result.diagnostics);
  if (toml.table) {
    TableReader root(*toml.table, "a book of layouts", result.diagnostics);
    result.layouts = ReadLayouts(root, canvas);
    root.Finish();
  }
  return result;
}

WallFile ReadWall(const std::filesystem::path& path) {
  const auto unreadable = [&](std::error_code reason) {
    WallFile file;
    file.diagnostics.Error({}, "cannot be read: " + reason.message());
    return file;
  };
  std::error_code reason;
  if (std::filesystem::is_directory(path, reason)) {
    return unreadable(std::make_error_code(std::errc::is_a_directory));
  }
  std::ifstream stream(path, std::ios::binary);
  if (!stream) {
    return unreadable({errno, std::generic_category()});
  }
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  return ParseWall(text, path.parent_path());
}

}  // namespace host::config
