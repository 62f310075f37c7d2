#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "host/config/sections.h"
#include "host/config/url.h"
#include "host/config/value_text.h"
#include "host/config/wall_file.h"

namespace host::config {

namespace {

constexpr Time kMax = 24 * (3600 * kSecond);

constexpr std::array<const char*, 4> kDecodeNames{"auto", "full", "economy", "keyframes"};

struct AlarmKey {
  AlarmKind kind;
  Alarm AlarmOptions::*alarm;
  bool hasLevel;
  double least;
  double most;
};

constexpr std::array<AlarmKey, 5> kAlarms = {{
    {AlarmKind::kLoss, &AlarmOptions::loss, false, 0, 0},
    {AlarmKind::kBlack, &AlarmOptions::black, true, 0, 100},
    {AlarmKind::kFreeze, &AlarmOptions::freeze, true, -120, 0},
    {AlarmKind::kSilence, &AlarmOptions::silence, true, -120, 0},
    {AlarmKind::kClipping, &AlarmOptions::clipping, true, -40, 0},
}};

// true, false, or a table with the details.
void ReadAlarm(TableReader& reader, const AlarmKey& key, Alarm& alarm) {
  const std::string name = NameOf(key.kind);
  const toml::node* const node = reader.Find(name);
  if (node == nullptr) {
    return;
  }
  if (node->is_boolean()) {
    alarm.enabled = *node->value<bool>();
    return;
  }
  const toml::table* const table = node->as_table();
  if (table == nullptr) {
    reader.Error(name, "must be true, false or a table such as { after = 5, clear_after = 1 }");
    return;
  }
  TableReader inner(*table, "\"" + name + "\"", reader.diagnostics());
  alarm.enabled = inner.Boolean("enabled").value_or(true);
  if (key.hasLevel) {
    alarm.level = inner.Number("level", key.least, key.most).value_or(alarm.level);
  }
  alarm.setAfter = inner.Duration("after", 0, kMax).value_or(alarm.setAfter);
  alarm.clearAfter = inner.Duration("clear_after", 0, kMax).value_or(alarm.clearAfter);
  inner.Finish();
}

bool IsLanguage(const std::string& text) {
  return (text.size() == 2 || text.size() == 3) &&
         std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::islower(c) != 0; });
}

// true, false, or a table with the details.
void ReadAudio(TableReader& reader, AudioOptions& audio) {
  constexpr const char* kKey = "audio";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return;
  }
  if (node->is_boolean()) {
    audio.enabled = *node->value<bool>();
    return;
  }
  const toml::table* const table = node->as_table();
  if (table == nullptr) {
    reader.Error(kKey, "must be true, false or a table such as { track = 2, meter = false }");
    return;
  }
  TableReader inner(*table, "\"audio\"", reader.diagnostics());
  audio.enabled = inner.Boolean("enabled").value_or(audio.enabled);
  audio.meter = inner.Boolean("meter").value_or(audio.meter);
  if (const auto track = inner.Integer("track", 1, 100)) {
    audio.track = static_cast<std::size_t>(*track);
  }
  if (const auto language = inner.Text("language")) {
    if (IsLanguage(*language)) {
      audio.language = *language;
    } else {
      inner.Error("language", "must be an ISO 639 code such as \"eng\" or \"deu\"");
    }
  }
  inner.Finish();
}

// [x, y, width, height] or a table of the four.
std::optional<std::array<std::int64_t, 4>> ReadNumbers(TableReader& reader) {
  constexpr const char* kKey = "window";
  static constexpr std::array<const char*, 4> kNames = {"x", "y", "width", "height"};
  constexpr std::int64_t kFar = 2 * std::int64_t{kLargestCanvas};
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return {};
  }
  std::array<std::int64_t, 4> numbers{};
  if (const toml::table* table = node->as_table()) {
    TableReader inner(*table, "\"window\"", reader.diagnostics());
    bool all = true;
    for (std::size_t i = 0; i < 4; ++i) {
      const auto number =
          inner.Integer(kNames[i], i < 2 ? -kFar : 2, i < 2 ? kFar : kLargestCanvas);
      if (!number && inner.Find(kNames[i]) == nullptr) {
        reader.Error(kKey, std::string("has no ") + kNames[i]);
      }
      all = all && number.has_value();
      numbers[i] = number.value_or(0);
    }
    inner.Finish();
    return all ? std::optional(numbers) : std::nullopt;
  }
  const toml::array* const array = node->as_array();
  if (array == nullptr || array->size() != 4 || !array->is_homogeneous<std::int64_t>()) {
    reader.Error(kKey, "must be four whole numbers: [x, y, width, height]");
    return {};
  }
  for (std::size_t i = 0; i < 4; ++i) {
    numbers[i] = array->get(i)->value<std::int64_t>().value_or(0);
    const std::int64_t least = i < 2 ? -kFar : 2;
    const std::int64_t most = i < 2 ? kFar : kLargestCanvas;
    if (numbers[i] < least || numbers[i] > most) {
      reader.diagnostics().Error(PositionOf(*array->get(i)),
                                 std::string("the window's ") + kNames[i] + " must lie between " +
                                     std::to_string(least) + " and " + std::to_string(most));
      return {};
    }
  }
  return numbers;
}

std::optional<Window> ReadWindow(TableReader& reader) {
  const auto numbers = ReadNumbers(reader);
  if (!numbers) {
    return {};
  }
  // The composer places windows on even pixels, cutting towards zero.
  const auto even = [](std::int64_t value) { return static_cast<int>(value / 2 * 2); };
  const Window window{even((*numbers)[0]), even((*numbers)[1]), even((*numbers)[2]),
                      even((*numbers)[3])};
  if (window != Window{static_cast<int>((*numbers)[0]), static_cast<int>((*numbers)[1]),
                       static_cast<int>((*numbers)[2]), static_cast<int>((*numbers)[3])}) {
    reader.Warning("window", "has odd numbers and is made even: [" + std::to_string(window.x) +
                                 ", " + std::to_string(window.y) + ", " +
                                 std::to_string(window.width) + ", " +
                                 std::to_string(window.height) + "]");
  }
  return window;
}

// What is not given stays as it is.
void ReadLabel(TableReader& reader, const FileContext& context, const std::string& name,
               Label& label) {
  const auto text = reader.Text("label");
  const auto file = reader.FilledText("label_file");
  const auto service = reader.Boolean("label_service");
  const int ways = (reader.Find("label") != nullptr ? 1 : 0) +
                   (reader.Find("label_file") != nullptr ? 1 : 0) + (service == true ? 1 : 0);
  if (ways > 1) {
    const char* const second =
        reader.Find("label_file") != nullptr ? "label_file" : "label_service";
    reader.Error(second, "cannot be given together with another source of the label");
  }
  if (file) {
    label.text = name;
    label.source = Label::Source::kFile;
    label.file = ResolvePath(*file, context);
    std::error_code ignored;
    if (!std::filesystem::exists(label.file, ignored)) {
      reader.Warning("label_file", "names no file yet: " + label.file.string());
    }
  } else if (service == true) {
    label = {Label::Source::kService, name, {}};
  } else if (text) {
    label = {text->empty() ? Label::Source::kNone : Label::Source::kText, *text, {}};
  }
}

std::string UseSource(TableReader& reader, const FileContext& context, const char* key,
                      const std::string& source) {
  std::string resolved = ResolveSource(source, context);
  std::error_code ignored;
  if (LocalPath(source) && !std::filesystem::exists(resolved, ignored)) {
    reader.Warning(key, "names no file yet: " + resolved);
  }
  return resolved;
}

constexpr const char* kSources = "sources";

// A text, or a table that also gives the size.
void ReadRendition(TableReader& reader, const FileContext& context, const toml::node& node,
                   Channel& channel) {
  RenditionSource rendition;
  std::string source = node.value<std::string>().value_or("");
  if (const toml::table* const table = node.as_table()) {
    TableReader inner(*table, "\"sources\"", reader.diagnostics());
    source = inner.FilledText("url").value_or("");
    const auto side = [&](const char* key) {
      return static_cast<int>(inner.Integer(key, 2, 16384).value_or(0));
    };
    rendition.width = side("width");
    rendition.height = side("height");
    inner.Finish();
    if (source.empty() || (rendition.width > 0) != (rendition.height > 0)) {
      reader.Error(kSources, "needs a url in each table, and width with height");
    }
  } else if (source.empty()) {
    reader.Error(kSources,
                 "must be texts or tables such as { url = \"...\", width = 640, "
                 "height = 360 }");
  }
  if (!source.empty()) {
    rendition.source = UseSource(reader, context, kSources, source);
    channel.sources.push_back(std::move(rendition));
  }
}

void ReadSource(TableReader& reader, const FileContext& context, Channel& channel) {
  constexpr const char* kKey = "source";
  constexpr std::size_t kMaxSources = 16;
  const toml::node* const several = reader.Find(kSources);
  if (several != nullptr && reader.Find(kKey) != nullptr) {
    reader.Error(kSources, "cannot be given together with \"source\"");
  } else if (several != nullptr) {
    const toml::array* const array = several->as_array();
    if (array == nullptr || array->empty() || array->size() > kMaxSources) {
      reader.Error(kSources, "must be a list of 1 to 16 files or URLs");
      return;
    }
    channel.sources.clear();
    for (const toml::node& node : *array) {
      ReadRendition(reader, context, node, channel);
    }
    channel.source = channel.sources.empty() ? "" : channel.sources.front().source;
  } else if (const auto source = reader.FilledText(kKey)) {
    channel.source = UseSource(reader, context, kKey, *source);
    channel.sources.clear();
  } else if (reader.Find(kKey) == nullptr && context.complete && channel.source.empty()) {
    reader.diagnostics().Error(reader.position(),
                               reader.title() + " has no \"source\": a file or a URL");
  }
}

// A number, or the name of a service.
void ReadProgram(TableReader& reader, ProgramChoice& program) {
  constexpr const char* kKey = "program";
  const toml::node* const node = reader.Find(kKey);
  if (node != nullptr && node->is_string()) {
    program.name = reader.FilledText(kKey).value_or("");
  } else if (node != nullptr && node->is_integer()) {
    program.number = static_cast<int>(reader.Integer(kKey, 1, kMaxProgram).value_or(0));
  } else if (node != nullptr) {
    reader.Error(kKey, "must be the number of a program, or the name of its service in quotes");
  }
}

}  // namespace

const char* NameOf(AlarmKind kind) {
  constexpr std::array<const char*, kAlarmKinds> kNames{"loss", "black", "freeze", "silence",
                                                        "clipping"};
  return kNames[static_cast<std::size_t>(kind)];
}

const char* NameOf(Decode decode) {
  return kDecodeNames.at(static_cast<std::size_t>(decode));
}

void ReadChannelOptions(TableReader& reader, ChannelOptions& options) {
  if (const auto colour = reader.Text("colour")) {
    if (IsLabelColour(*colour)) {
      options.colour = *colour;
    } else {
      reader.Error("colour", "must be \"#RGB\", \"#ARGB\", \"#RRGGBB\" or \"#AARRGGBB\", not \"" +
                                 *colour + "\"");
    }
  }
  options.enabled = reader.Boolean("enabled").value_or(options.enabled);
  if (const auto decode = reader.Choice("decode", {kDecodeNames.begin(), kDecodeNames.end()})) {
    options.decode = static_cast<Decode>(*decode);
  }
  if (const auto mode = reader.Choice("deinterlace", {"off", "auto", "frames", "fields"})) {
    options.deinterlace = static_cast<DeinterlaceMode>(*mode);
  }
  options.repeat = reader.Boolean("repeat").value_or(options.repeat);
  options.hold = reader.Duration("hold", 0, kMax).value_or(options.hold);
  constexpr Time kMin = 100 * kMillisecond;
  options.openLimit = reader.Duration("open_limit", kMin, kMax).value_or(options.openLimit);
  options.readLimit = reader.Duration("read_limit", kMin, kMax).value_or(options.readLimit);
  if (const auto threads = reader.Integer("decoder_threads", 1, 64)) {
    options.decoderThreads = static_cast<int>(*threads);
  }
  ReadAudio(reader, options.audio);
  if (const toml::table* table = reader.Table("alarm")) {
    TableReader alarms(*table, "\"alarm\"", reader.diagnostics());
    for (const AlarmKey& key : kAlarms) {
      ReadAlarm(alarms, key, options.alarm.*key.alarm);
    }
    alarms.Finish();
  }
  if (auto more = reader.Options("options")) {
    for (auto& [key, value] : *more) {
      options.options[key] = value;
    }
  }
}

Channel NewChannel(std::size_t number, const ChannelOptions& defaults) {
  Channel channel;
  channel.name = "Channel " + std::to_string(number);
  channel.label.text = channel.name;
  channel.options = defaults;
  return channel;
}

ChannelEntry ReadChannel(TableReader& reader, const FileContext& context, Channel base) {
  ChannelEntry entry;
  entry.position = reader.position();
  entry.channel = std::move(base);
  Channel& channel = entry.channel;
  ReadSource(reader, context, channel);
  ReadProgram(reader, channel.program);
  const auto name = reader.FilledText("name");
  entry.named = name.has_value();
  entry.namePosition = reader.PositionOf("name");
  // Also where the name stands in for a text that is not known yet.
  const bool isLabelledByName = channel.label.text == channel.name;
  channel.name = name.value_or(channel.name);
  if (isLabelledByName) {
    channel.label.text = channel.name;
  }
  entry.window = ReadWindow(reader);
  entry.windowPosition = reader.PositionOf("window");
  channel.selected = reader.Boolean("selected").value_or(channel.selected);
  if (const auto index = reader.Integer("tally_index", 0, kMaxTallyIndex)) {
    channel.tallyIndex = static_cast<int>(*index);
  }
  ReadLabel(reader, context, channel.name, channel.label);
  ReadChannelOptions(reader, channel.options);
  channel.places = reader.AllPlaces();
  reader.Finish();
  return entry;
}

}  // namespace host::config
