#include "host/channel/rendition/rendition_set.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <numeric>
#include <tuple>
#include <utility>

#include "host/channel/source/media_info.h"
#include "host/channel/source/source_address.h"
#include "host/channel/video/frame_converter.h"
#include "host/ffmpeg/error.h"
#include "host/ffmpeg/inputs.h"
#include "host/ffmpeg/mask.h"
#include "util/url_parts.h"

namespace host {

namespace {

constexpr std::string_view kHeader = "#EXTM3U";
constexpr std::string_view kVariant = "#EXT-X-STREAM-INF:";
constexpr std::string_view kMedia = "#EXT-X-MEDIA:";
constexpr int kMaxSide = 16384;

using Attributes = std::map<std::string, std::string, std::less<>>;

// NAME=VALUE,NAME="VALUE",...
std::optional<Attributes> ParseAttributes(std::string_view text) {
  Attributes attributes;
  while (!text.empty()) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0) {
      return std::nullopt;
    }
    std::string_view name = text.substr(0, equals);
    name.remove_prefix(std::min(name.find_first_not_of(' '), name.size()));
    text.remove_prefix(equals + 1);
    const bool isQuoted = text.starts_with('"');
    const std::size_t end = isQuoted ? text.find('"', 1) : std::min(text.find(','), text.size());
    if (end == std::string_view::npos) {
      return std::nullopt;
    }
    attributes[std::string(name)] = text.substr(isQuoted ? 1 : 0, isQuoted ? end - 1 : end);
    text.remove_prefix(std::min(end + (isQuoted ? 1 : 0), text.size()));
    if (!text.empty() && text.front() != ',') {
      return std::nullopt;
    }
    text.remove_prefix(text.empty() ? 0 : 1);
  }
  return attributes;
}

std::string_view Value(const Attributes& attributes, std::string_view name) {
  const auto found = attributes.find(name);
  return found != attributes.end() ? std::string_view(found->second) : std::string_view();
}

template <typename Number>
bool ParseNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number > 0;
}

bool ReadSize(std::string_view text, PlaylistVariant& variant) {
  const std::size_t cross = std::min(text.find('x'), text.size());
  return ParseNumber(text.substr(0, cross), variant.width) &&
         ParseNumber(text.substr(std::min(cross + 1, text.size())), variant.height) &&
         variant.width <= kMaxSide && variant.height <= kMaxSide;
}

// Whether a list of codecs has none of video.
bool IsAudioOnly(std::string_view codecs) {
  static constexpr std::string_view kAudio[] = {"mp4a", "ac-3", "ec-3", "opus", "flac", "alac"};
  while (!codecs.empty()) {
    std::string_view codec = codecs.substr(0, codecs.find(','));
    codecs.remove_prefix(std::min(codec.size() + 1, codecs.size()));
    codec.remove_prefix(std::min(codec.find_first_not_of(' '), codec.size()));
    if (std::none_of(std::begin(kAudio), std::end(kAudio), [&](std::string_view known) {
          return qorp::LowerCase(codec).starts_with(known);
        })) {
      return false;
    }
  }
  return true;
}

bool IsHttp(std::string_view url) {
  const std::string scheme = qorp::LowerCase(url.substr(0, url.find(':')));
  return url.find("://") == scheme.size() && (scheme == "http" || scheme == "https");
}

// "a:" at the beginning of a reference is a scheme.
bool HasScheme(std::string_view uri) {
  const std::size_t colon = uri.find(':');
  return colon != std::string_view::npos && colon < uri.find_first_of("/?#");
}

// The path without "." and "..", which do not lead above the root.
std::string Normalized(std::string_view path) {
  std::vector<std::string_view> parts;
  for (std::size_t at = 0; at <= path.size();) {
    const std::size_t slash = std::min(path.find('/', at), path.size());
    const std::string_view part = path.substr(at, slash - at);
    if (part == "..") {
      parts.resize(parts.size() > 1 ? parts.size() - 1 : parts.size());
    } else if (part != ".") {
      parts.push_back(part);
    }
    at = slash + 1;
  }
  std::string normalized;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    normalized.append(i > 0 ? "/" : "").append(parts[i]);
  }
  return normalized;
}

// A reference in an HTTP playlist; none when it leads elsewhere.
std::optional<std::string> ResolveUrl(std::string_view uri, std::string_view location) {
  if (HasScheme(uri)) {
    return IsHttp(uri) ? std::optional<std::string>(uri) : std::nullopt;
  }
  const std::size_t host = location.find("://") + 3;
  if (uri.starts_with("//")) {
    return std::string(location.substr(0, host - 2)).append(uri);
  }
  const std::size_t root = std::min(location.find_first_of("/?#", host), location.size());
  const std::string server(location.substr(0, root));
  const std::size_t end = std::min(location.find_first_of("?#", root), location.size());
  const std::string_view path = location.substr(root, end - root);
  if (uri.starts_with('?')) {
    return server + std::string(path).append(uri);
  }
  const std::size_t query = std::min(uri.find_first_of("?#"), uri.size());
  const std::string_view folder = path.substr(0, path.rfind('/') + 1);
  const std::string whole = uri.starts_with('/') ? std::string(uri.substr(0, query))
                            : folder.empty()     ? "/" + std::string(uri.substr(0, query))
                                                 : std::string(folder).append(uri.substr(0, query));
  return server + Normalized(whole) + std::string(uri.substr(query));
}

// A reference in a local playlist; none when it leads out of its folder.
std::optional<std::string> ResolvePath(std::string_view uri, std::string_view location) {
  const bool leavesFolder = ("/" + std::string(uri) + "/").find("/../") != std::string::npos;
  if (HasScheme(uri) || uri.starts_with('/') || leavesFolder) {
    return std::nullopt;
  }
  return std::string(location.substr(0, location.rfind('/') + 1)).append(uri);
}

// One text on its way to the variants in it.
class Parser {
 public:
  explicit Parser(std::string_view location) : location_(location) {}

  // False when the text is not understood.
  bool Take(std::string_view line) {
    if (awaitsAddress_ && !line.empty() && !line.starts_with('#')) {
      awaitsAddress_ = false;
      return AddVariant(line);
    }
    if (line.starts_with(kVariant)) {
      const auto attributes = ParseAttributes(line.substr(kVariant.size()));
      awaitsAddress_ = attributes.has_value();
      announced_ = attributes.value_or(Attributes());
      return attributes.has_value();
    }
    if (line.starts_with(kMedia)) {
      return AddMedia(line.substr(kMedia.size()));
    }
    // A media playlist, or one with variable substitution.
    return !line.starts_with("#EXTINF:") && !line.starts_with("#EXT-X-DEFINE:");
  }

  std::optional<std::vector<PlaylistVariant>> Finish() {
    if (variants_.empty() || awaitsAddress_) {
      return std::nullopt;
    }
    for (auto& [variant, group] : variants_) {
      const auto found = audio_.find(group);
      if (found != audio_.end() && found->second.isSeparate) {
        variant.playlist = std::string(kHeader) + "\n" + found->second.lines + kVariant.data() +
                           "BANDWIDTH=" + std::to_string(variant.bandwidth) + ",AUDIO=\"" + group +
                           "\"\n" + variant.source + "\n";
      }
    }
    std::vector<PlaylistVariant> variants;
    for (auto& entry : variants_) {
      variants.push_back(std::move(entry.first));
    }
    return variants;
  }

 private:
  struct AudioGroup {
    std::string lines;
    bool isSeparate = false;  // one of its renditions has a playlist of its own
  };

  std::optional<std::string> Resolve(std::string_view uri) const {
    const bool isAllowed = !uri.empty() && uri.find('{') == std::string_view::npos;
    return !isAllowed          ? std::nullopt
           : IsHttp(location_) ? ResolveUrl(uri, location_)
                               : ResolvePath(uri, location_);
  }

  bool AddVariant(std::string_view uri) {
    PlaylistVariant variant;
    const std::optional<std::string> source = Resolve(uri);
    const std::string_view size = Value(announced_, "RESOLUTION");
    const std::string_view codecs = Value(announced_, "CODECS");
    if (!source || !ParseNumber(Value(announced_, "BANDWIDTH"), variant.bandwidth) ||
        (!size.empty() && !ReadSize(size, variant)) || variants_.size() >= kMaxPlaylistVariants) {
      return false;
    }
    if (codecs.empty() || !IsAudioOnly(codecs)) {
      variant.source = *source;
      variants_.emplace_back(std::move(variant), Value(announced_, "AUDIO"));
    }
    return true;
  }

  bool AddMedia(std::string_view text) {
    const std::optional<Attributes> attributes = ParseAttributes(text);
    if (!attributes || ++media_ > kMaxPlaylistVariants) {
      return false;
    }
    if (Value(*attributes, "TYPE") != "AUDIO") {
      return true;
    }
    AudioGroup& group = audio_[std::string(Value(*attributes, "GROUP-ID"))];
    group.lines.append(kMedia).append("TYPE=AUDIO");
    for (const char* const name : {"GROUP-ID", "NAME", "LANGUAGE"}) {
      if (const std::string_view value = Value(*attributes, name); !value.empty()) {
        group.lines.append(",").append(name).append("=\"").append(value).append("\"");
      }
    }
    if (Value(*attributes, "DEFAULT") == "YES") {
      group.lines.append(",DEFAULT=YES");
    }
    if (const std::string_view uri = Value(*attributes, "URI"); !uri.empty()) {
      const std::optional<std::string> source = Resolve(uri);
      if (!source) {
        return false;
      }
      group.isSeparate = true;
      group.lines.append(",URI=\"").append(*source).append("\"");
    }
    group.lines.append("\n");
    return true;
  }

  const std::string_view location_;
  bool awaitsAddress_ = false;
  Attributes announced_;  // of the variant whose address comes next
  std::vector<std::pair<PlaylistVariant, std::string>> variants_;  // with their audio groups
  std::map<std::string, AudioGroup, std::less<>> audio_;           // by group
  std::size_t media_ = 0;
};

}  // namespace

bool MayBePlaylist(std::string_view source) {
  const bool isLocal = source.find("://") == std::string_view::npos;
  if (isLocal ? HasScheme(source) : !IsHttp(source)) {
    return false;
  }
  const std::string path =
      qorp::LowerCase(isLocal ? source : source.substr(0, source.find_first_of("?#")));
  return path.ends_with(".m3u8") || path.ends_with(".m3u");
}

std::optional<std::vector<PlaylistVariant>> ReadVariants(std::string_view text,
                                                         std::string_view location) {
  if (text.size() > kMaxPlaylistBytes || !text.starts_with(kHeader)) {
    return std::nullopt;
  }
  Parser parser(location);
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    line = line.substr(0, line.find_last_not_of("\r \t") + 1);
    const bool isClean = std::none_of(line.begin(), line.end(), [](char c) {
      return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
    });
    if (line.size() > kMaxPlaylistLine || !isClean || !parser.Take(line)) {
      return std::nullopt;
    }
  }
  return parser.Finish();
}

std::vector<PlaylistVariant> FindVariants(const config::Channel& channel,
                                          ffmpeg::IoDeadline& deadline) {
  if (!channel.sources.empty()) {
    std::vector<PlaylistVariant> variants;
    for (const config::RenditionSource& each : channel.sources) {
      variants.push_back({each.source, each.width, each.height, 0, {}});
    }
    return variants;
  }
  if (MayBePlaylist(channel.source) && !ffmpeg::PipeInput::Serves(channel.source)) {
    const SourceAddress address(channel.source);
    const ffmpeg::Secrets secrets(channel.source, channel.options.options);
    ffmpeg::Options options;
    for (const auto& [key, value] : address.OpenOptions(channel.options.options)) {
      options.Set(key.c_str(), value);
    }
    deadline.Arm(Milliseconds(channel.options.openLimit));
    try {
      const ffmpeg::FoundText found =
          ffmpeg::ReadText(address.name(), kMaxPlaylistBytes, options, deadline);
      auto variants = SourceAddress(found.location).isHttp() == address.isHttp()
                          ? ReadVariants(found.text, found.location)
                          : std::nullopt;
      if (variants && variants->size() > 1) {
        return std::move(*variants);
      }
    } catch (const ffmpeg::Error&) {
      // FFmpeg reports any other fault when it opens the source.
      if (deadline.ShouldStop()) {
        throw MediaError(
            deadline.cancelled() ? MediaError::Kind::kCancelled : MediaError::Kind::kTimedOut,
            "its playlist did not come in time", ffmpeg::MaskUrl(channel.source));
      }
    }
  }
  return {{channel.source, 0, 0, 0, {}}};
}

void RenditionSet::Assign(std::vector<PlaylistVariant> renditions) {
  renditions_ = std::move(renditions);
  // A playlist with new addresses each time must not fill the memory.
  std::erase_if(memory_, [&](const auto& entry) {
    return std::none_of(renditions_.begin(), renditions_.end(),
                        [&](const auto& each) { return each.source == entry.first; });
  });
  for (std::size_t i = 0; i < renditions_.size(); ++i) {
    if (const std::optional<WindowSize> size = Of(i).size) {
      std::tie(renditions_[i].width, renditions_[i].height) = std::tie(size->width, size->height);
    }
  }
}

void RenditionSet::Learn(std::size_t index, int width, int height) {
  Of(index).hasNoVideo = width <= 0;
  if (width > 0) {
    Of(index).size = {width, height};
    renditions_[index].width = width;
    renditions_[index].height = height;
  }
}

void RenditionSet::Failed(std::size_t index, Clock::time_point now) {
  Memory& memory = Of(index);
  const auto pause = kMinPause * (1 << std::min(memory.failures, 10));
  memory.leftOutUntil = now + std::min<Clock::duration>(pause, kMaxPause);
  ++memory.failures;
}

void RenditionSet::Succeeded(std::size_t index) {
  Of(index).failures = 0;
}

const RenditionSet::Memory* RenditionSet::Find(std::size_t index) const {
  const auto found = memory_.find(renditions_[index].source);
  return found != memory_.end() ? &found->second : nullptr;
}

bool RenditionSet::IsLeftOut(std::size_t index, Clock::time_point now) const {
  const Memory* const memory = Find(index);
  return memory != nullptr && (memory->hasNoVideo || now < memory->leftOutUntil);
}

bool RenditionSet::Suffices(std::size_t index, WindowSize window) const {
  const PlaylistVariant& rendition = renditions_[index];
  const FitRect shown = FitFrame(rendition.width, rendition.height, {1, 1}, window.width,
                                 window.height, pixelAspect_);
  return rendition.width >= shown.width && rendition.height >= shown.height;
}

std::vector<std::size_t> RenditionSet::Order(WindowSize window, Clock::time_point now) const {
  const auto rank = [&](std::size_t index) {
    const PlaylistVariant& each = renditions_[index];
    const std::int64_t pixels = std::int64_t{each.width} * each.height;
    const bool suffices = IsKnown(index) && Suffices(index, window);
    const int group = !IsKnown(index) ? 2 : suffices ? 0 : 1;
    return std::tuple(IsLeftOut(index, now), group, suffices ? pixels : -pixels, -each.bandwidth);
  };
  std::vector<std::size_t> order(renditions_.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return rank(a) < rank(b); });
  return order;
}

std::optional<std::size_t> RenditionSet::Best(WindowSize window, Clock::time_point now) const {
  const std::size_t first = Order(window, now).front();
  return IsLeftOut(first, now) ? std::nullopt : std::optional(first);
}

std::optional<std::size_t> RenditionSet::Unknown(Clock::time_point now) const {
  for (std::size_t i = 0; i < renditions_.size(); ++i) {
    if (!IsKnown(i) && !IsLeftOut(i, now)) {
      return i;
    }
  }
  return std::nullopt;
}

}  // namespace host
