#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <optional>
#include <stdexcept>
#include <vector>

#include "host/config/sections.h"
#include "host/config/toml_editor.h"
#include "host/config/url.h"
#include "host/config/wall_file.h"

namespace host::config {
namespace {

std::string Value(bool value) {
  return value ? "true" : "false";
}

std::string Value(double value) {
  std::array<char, 32> text{};
  const auto result = std::to_chars(text.data(), text.data() + text.size(), value);
  return {text.data(), result.ptr};
}

std::string Value(int value) {
  return std::to_string(value);
}

// Seconds.
std::string TimeValue(Time time) {
  return time % kSecond == 0 ? std::to_string(time / kSecond)
                             : Value(static_cast<double>(time) / kSecond);
}

std::string Value(const Window& window) {
  return "[" + Value(window.x) + ", " + Value(window.y) + ", " + Value(window.width) + ", " +
         Value(window.height) + "]";
}

// A path as the file gives it: relative to its folder, if it lies there.
std::string PathValue(const std::filesystem::path& path, const std::filesystem::path& folder) {
  const std::filesystem::path relative =
      folder.empty() ? path : path.lexically_relative(folder.lexically_normal());
  const bool isInside = !relative.empty() && *relative.begin() != "..";
  return QuotedToml(isInside || path.is_relative() ? relative.string() : path.string());
}

std::string SourceValue(const std::string& source, const std::filesystem::path& folder) {
  return LocalPath(source) ? PathValue(source, folder) : QuotedToml(source);
}

// The keys of one channel that have to change so that its table gives the wanted channel.
class ChannelEdits {
 public:
  struct Edit {
    TomlEditor::Path path;
    std::optional<std::string> value;  // none: the key is removed
  };

  // table: of the channel in the file, maybe empty; base: what it is without keys.
  ChannelEdits(const toml::table& table, const Channel& base, const std::filesystem::path& folder)
      : table_(table), base_(base), folder_(folder) {}

  std::vector<Edit> To(const Channel& wanted, bool hasWindow) {
    Diagnostics ignored;
    TableReader reader(table_, "", ignored);
    const ChannelEntry file = ReadChannel(reader, {folder_, true}, base_);
    Put({"name"}, file.channel.name, wanted.name, QuotedToml(wanted.name));
    Put({"source"}, file.channel.source, wanted.source, SourceValue(wanted.source, folder_));
    PutWindow(file.window, hasWindow ? std::optional(wanted.window) : std::nullopt);
    Put({"selected"}, file.channel.selected, wanted.selected, Value(wanted.selected));
    if (wanted.tallyIndex) {
      Put({"tally_index"}, file.channel.tallyIndex, wanted.tallyIndex, Value(*wanted.tallyIndex));
    } else {
      Remove("tally_index");
    }
    PutLabel(file.channel.label, wanted);
    PutOptions(file.channel.options, wanted.options);
    return std::move(edits_);
  }

 private:
  template <typename T>
  void Put(TomlEditor::Path path, const T& file, const T& wanted, std::string value) {
    if (!(file == wanted)) {
      edits_.push_back({std::move(path), std::move(value)});
    }
  }
  void Remove(const char* key) {
    if (table_.contains(key)) {
      edits_.push_back({{key}, std::nullopt});
    }
  }

  void PutWindow(const std::optional<Window>& file, const std::optional<Window>& wanted) {
    if (file == wanted) {
      return;
    }
    if (!wanted) {
      Remove("window");
    } else if (file && table_["window"].is_table()) {
      Put({"window", "x"}, file->x, wanted->x, Value(wanted->x));
      Put({"window", "y"}, file->y, wanted->y, Value(wanted->y));
      Put({"window", "width"}, file->width, wanted->width, Value(wanted->width));
      Put({"window", "height"}, file->height, wanted->height, Value(wanted->height));
    } else {
      edits_.push_back({{"window"}, Value(*wanted)});
    }
  }

  void PutLabel(Label file, const Channel& wanted) {
    const bool isGiven = table_.contains("label") || file.source != Label::Source::kText;
    if (!isGiven || file.source == Label::Source::kFile || file.source == Label::Source::kService) {
      file.text = wanted.name;  // stands in for what is not given, or not known yet
    }
    if (file == wanted.label) {
      return;
    }
    const Label& label = wanted.label;
    if (label.source != Label::Source::kFile) {
      Remove("label_file");
    }
    if (label.source != Label::Source::kService) {
      Remove("label_service");
    }
    switch (label.source) {
      case Label::Source::kNone:
      case Label::Source::kText:
        if (table_.contains("label") || label.text != wanted.name) {
          edits_.push_back({{"label"}, QuotedToml(label.text)});
        }
        return;
      case Label::Source::kFile:
        Remove("label");
        edits_.push_back({{"label_file"}, PathValue(label.file, folder_)});
        return;
      case Label::Source::kService:
        Remove("label");
        edits_.push_back({{"label_service"}, Value(true)});
        return;
    }
  }

  void PutOptions(const ChannelOptions& file, const ChannelOptions& wanted) {
    static constexpr std::array<const char*, 4> kDeinterlace{"off", "auto", "frames", "fields"};
    Put({"colour"}, file.colour, wanted.colour, QuotedToml(wanted.colour));
    Put({"enabled"}, file.enabled, wanted.enabled, Value(wanted.enabled));
    Put({"decode"}, file.decode, wanted.decode, QuotedToml(NameOf(wanted.decode)));
    Put({"deinterlace"}, file.deinterlace, wanted.deinterlace,
        QuotedToml(kDeinterlace.at(static_cast<std::size_t>(wanted.deinterlace))));
    Put({"repeat"}, file.repeat, wanted.repeat, Value(wanted.repeat));
    Put({"hold"}, file.hold, wanted.hold, TimeValue(wanted.hold));
    Put({"open_limit"}, file.openLimit, wanted.openLimit, TimeValue(wanted.openLimit));
    Put({"read_limit"}, file.readLimit, wanted.readLimit, TimeValue(wanted.readLimit));
    Put({"decoder_threads"}, file.decoderThreads, wanted.decoderThreads,
        Value(wanted.decoderThreads));
    PutAudio(file.audio, wanted.audio);
    for (const AlarmKind kind : kAllAlarms) {
      PutAlarm(kind, file.alarm[kind], wanted.alarm[kind]);
    }
    for (const auto& [key, value] : wanted.options) {
      const auto found = file.options.find(key);
      if (found == file.options.end() || found->second != value) {
        edits_.push_back({{"options", key}, QuotedToml(value)});
      }
    }
    for (const auto& [key, value] : file.options) {
      if (!wanted.options.contains(key)) {
        edits_.push_back({{"options", key}, std::nullopt});
      }
    }
  }

  struct Detail {
    const char* key;
    bool differs;
    std::optional<std::string> value;  // none: the key is left out
  };

  // A key that may be true, false or a table with the details.
  void PutSwitch(const TomlEditor::Path& path, bool file, bool wanted,
                 const std::vector<Detail>& details) {
    const toml::node* node = &table_;
    for (const std::string& key : path) {
      const toml::table* const inner = node != nullptr ? node->as_table() : nullptr;
      node = inner != nullptr ? inner->get(key) : nullptr;
    }
    const auto inside = [&path](const char* key) {
      TomlEditor::Path longer = path;
      longer.emplace_back(key);
      return longer;
    };
    if (node != nullptr && node->is_table()) {
      Put(inside("enabled"), file, wanted, Value(wanted));
      for (const Detail& detail : details) {
        if (detail.differs) {
          edits_.push_back({inside(detail.key), detail.value});
        }
      }
      return;
    }
    std::string table;
    for (const Detail& detail : details) {
      if (detail.differs && detail.value) {
        table += std::string(", ") + detail.key + " = " + *detail.value;
      }
    }
    if (!table.empty()) {
      edits_.push_back({path, "{ enabled = " + Value(wanted) + table + " }"});
    } else {
      Put(path, file, wanted, Value(wanted));
    }
  }

  void PutAudio(const AudioOptions& file, const AudioOptions& wanted) {
    const auto given = [](bool isGiven, std::string value) {
      return isGiven ? std::optional(std::move(value)) : std::nullopt;
    };
    PutSwitch({"audio"}, file.enabled, wanted.enabled,
              {{"meter", file.meter != wanted.meter, Value(wanted.meter)},
               {"track", file.track != wanted.track,
                given(wanted.track > 0, std::to_string(wanted.track))},
               {"language", file.language != wanted.language,
                given(!wanted.language.empty(), QuotedToml(wanted.language))}});
  }

  void PutAlarm(AlarmKind kind, const Alarm& file, const Alarm& wanted) {
    PutSwitch(
        {"alarm", NameOf(kind)}, file.enabled, wanted.enabled,
        {{"level", file.level != wanted.level, Value(wanted.level)},
         {"after", file.setAfter != wanted.setAfter, TimeValue(wanted.setAfter)},
         {"clear_after", file.clearAfter != wanted.clearAfter, TimeValue(wanted.clearAfter)}});
  }

  const toml::table& table_;
  const Channel base_;
  const std::filesystem::path folder_;
  std::vector<Edit> edits_;
};

// For each wanted channel, its channel in the file.
std::vector<std::optional<std::size_t>> Match(const std::vector<Channel>& file,
                                              const std::vector<Channel>& wanted) {
  std::vector<std::optional<std::size_t>> matches(wanted.size());
  std::vector<bool> isTaken(file.size(), false);
  for (const bool byName : {true, false}) {
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      for (std::size_t k = 0; k < file.size() && !matches[i]; ++k) {
        const bool isSame =
            byName ? file[k].name == wanted[i].name
                   : file[k].source == wanted[i].source &&
                         std::none_of(wanted.begin(), wanted.end(), [&](const Channel& other) {
                           return other.name == file[k].name;
                         });
        if (isSame && !isTaken[k]) {
          matches[i] = k;
          isTaken[k] = true;
        }
      }
    }
  }
  return matches;
}

[[noreturn]] void Fail(const std::string& why) {
  throw std::runtime_error(why);
}

// Checks that the edited text gives the wanted wall.
void CheckResult(const std::string& text, const std::filesystem::path& folder, const Wall& wanted,
                 const Wall& before) {
  WallFile result = ParseWall(text, folder);
  if (!result.usable()) {
    for (const Diagnostic& diagnostic : result.diagnostics.all()) {
      if (diagnostic.severity == Diagnostic::Severity::kError) {
        Fail("the wall as it is makes no wall file: " + diagnostic.message);
      }
    }
  }
  Wall expected = before;
  expected.channels = wanted.channels;
  expected.layout = wanted.layout;
  expected.placesWindows = wanted.placesWindows;
  if (result.wall.placesWindows && expected.placesWindows) {
    for (std::size_t i = 0; i < result.wall.channels.size() && i < expected.channels.size(); ++i) {
      expected.channels[i].window = result.wall.channels[i].window;
    }
  }
  if (!(result.wall == expected)) {
    Fail(
        "the wall file is written in a form that has no place for the changes; give each channel a "
        "[[channel]] section with all of its keys");
  }
}

}  // namespace

std::string EditWall(const std::string& text, const std::filesystem::path& folder,
                     const Wall& wall) {
  const WallFile file = ParseWall(text, folder);
  if (!file.usable()) {
    Fail("the wall file has mistakes; see \"tavrel check\"");
  }
  TomlEditor editor(text);
  const toml::array* const tables = editor.root()["channel"].as_array();
  if (tables->get(0)->as_table()->is_inline()) {
    Fail("the channels of the wall file are not written as [[channel]] sections");
  }
  if (wall.channels.empty()) {
    Fail("the wall has no channel, and a wall file has at least one");
  }
  std::string lead;
  if (file.wall.layout != wall.layout) {
    const std::string layout = QuotedToml(wall.layout);
    if (editor.root().contains("wall")) {
      editor.Set(editor.root(), {"wall", "layout"}, layout);
    } else {
      lead = "[wall]" + editor.eol() + "layout = " + layout + editor.eol() + editor.eol();
    }
  }
  const std::vector<std::optional<std::size_t>> matches = Match(file.wall.channels, wall.channels);
  const toml::table none;
  std::vector<TomlEditor::Element> elements;
  for (std::size_t i = 0; i < wall.channels.size(); ++i) {
    const toml::table& table = matches[i] ? *tables->get(*matches[i])->as_table() : none;
    ChannelEdits edits(table, NewChannel(i + 1, file.wall.defaults), folder);
    TomlEditor::Element element{matches[i], "[[channel]]" + editor.eol()};
    for (const ChannelEdits::Edit& edit : edits.To(wall.channels[i], !wall.placesWindows)) {
      if (!matches[i]) {
        element.text += TomlKey(edit.path) + " = " + edit.value.value_or("\"\"") + editor.eol();
      } else if (edit.value) {
        editor.Set(table, edit.path, *edit.value);
      } else {
        editor.Remove(table, edit.path);
      }
    }
    elements.push_back(std::move(element));
  }
  const bool isArranged = lead.empty() && matches.size() == file.wall.channels.size() &&
                          std::is_sorted(matches.begin(), matches.end()) &&
                          matches.front().has_value();
  if (!isArranged) {
    editor.Arrange(*tables, elements, lead);
  }
  std::string edited = editor.Text();
  CheckResult(edited, folder, wall, file.wall);
  return edited;
}

}  // namespace host::config
