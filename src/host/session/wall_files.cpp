#include <algorithm>
#include <array>
#include <string_view>
#include <system_error>

#include "host/config/url.h"
#include "host/config/value_text.h"
#include "host/ffmpeg/mask.h"
#include "host/ffmpeg/outputs.h"
#include "host/session/wall_check.h"

namespace host {
namespace {

namespace fs = std::filesystem;

constexpr const char* kStandardInput = "/dev/stdin";
constexpr const char* kStandardOutput = "/dev/stdout";
constexpr const char* kStandardError = "/dev/stderr";

// "*" stands for any characters.
bool Matches(std::string_view name, std::string_view pattern) {
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) {
    return name == pattern;
  }
  if (!name.starts_with(pattern.substr(0, star))) {
    return false;
  }
  name.remove_prefix(star);
  pattern.remove_prefix(star + 1);
  for (std::size_t skipped = 0; skipped <= name.size(); ++skipped) {
    if (Matches(name.substr(skipped), pattern)) {
      return true;
    }
  }
  return false;
}

// Where a file is or would be created: without links, also those that lead to nothing yet.
fs::path Resolved(fs::path path) {
  constexpr int kMaxLinks = 40;
  std::error_code ignored;
  for (int i = 0; i < kMaxLinks && !fs::exists(path, ignored) && fs::is_symlink(path, ignored);
       ++i) {
    path = path.parent_path() / fs::read_symlink(path, ignored);
  }
  path = fs::weakly_canonical(fs::absolute(path, ignored), ignored);
  return path.has_filename() ? path : path.parent_path();
}

bool IsSameFile(const fs::path& a, const fs::path& b) {
  std::error_code ignored;
  if (fs::is_character_file(a, ignored)) {
    return false;  // several may write into a device, such as the null device
  }
  if (fs::equivalent(a, b, ignored)) {
    return true;
  }
  const fs::path one = Resolved(a);
  const fs::path other = Resolved(b);
  return one == other || (one.filename() == other.filename() && !fs::exists(one, ignored) &&
                          !fs::exists(other, ignored) &&
                          fs::equivalent(one.parent_path(), other.parent_path(), ignored));
}

bool IsBeside(const WallFiles::Use& use, const fs::path& path, const fs::path& other) {
  if (use.beside.empty()) {
    return false;
  }
  std::error_code ignored;
  const fs::path resolved = Resolved(other);
  return fs::equivalent(Resolved(path).parent_path(), resolved.parent_path(), ignored) &&
         std::any_of(use.beside.begin(), use.beside.end(), [&](const std::string& pattern) {
           return Matches(resolved.filename().string(), pattern);
         });
}

// A network address: a port that is opened, or the target of what is sent.
struct Address {
  enum class Kind { kDatagram, kStream };
  Kind kind = Kind::kStream;
  bool listens = false;
  std::string host;
  int firstPort = 0;
  int lastPort = 0;
  std::string further;  // what tells receivers on one port apart
};

bool IsOn(const std::map<std::string, std::string>& options, const char* key) {
  const auto option = options.find(key);
  return option != options.end() && option->second != "0" && option->second != "false";
}

std::string Of(const std::map<std::string, std::string>& options, const char* key) {
  const auto option = options.find(key);
  return option == options.end() ? std::string() : option->second;
}

std::optional<Address> AddressOf(const WallFiles::Use& use, bool isWritten) {
  const std::optional<config::Url> url = config::ParseUrl(use.target);
  const std::optional<int> port = url ? url->portNumber() : std::nullopt;
  if (!port) {
    return {};
  }
  std::map<std::string, std::string> options = url->query;
  options.insert(use.options.begin(), use.options.end());
  Address address;
  address.host = url->host == "localhost" ? "127.0.0.1" : url->host;
  address.firstPort = address.lastPort = *port;
  if (url->scheme == "udp" || url->scheme == "rtp" || url->scheme == "srt") {
    address.kind = Address::Kind::kDatagram;
    address.listens = url->scheme == "srt" ? Of(options, "mode") == "listener" : !isWritten;
    address.lastPort += url->scheme == "rtp" ? 1 : 0;  // that of RTCP
    address.further = Of(options, "streamid");
  } else {
    address.listens = IsOn(options, "listen");
    address.further = url->path;
  }
  return address;
}

bool IsAnyHost(const std::string& host) {
  return host.empty() || host == "0.0.0.0" || host == "::";
}

// Whether packets to the one host reach a receiver at the other.
bool Reaches(const std::string& sent, const std::string& receiving) {
  return sent == receiving || (IsAnyHost(receiving) && (sent.starts_with("127.") || sent == "::1"));
}

bool IsSameAddress(const WallFiles::Use& written, const WallFiles::Use& other,
                   bool otherIsWritten) {
  const std::optional<Address> a = AddressOf(written, true);
  const std::optional<Address> b = AddressOf(other, otherIsWritten);
  if (!a || !b || a->kind != b->kind || a->firstPort > b->lastPort || b->firstPort > a->lastPort) {
    return written.target == other.target && config::ParseUrl(written.target).has_value();
  }
  if (a->listens && b->listens) {
    return a->host == b->host || IsAnyHost(a->host) || IsAnyHost(b->host);
  }
  if (a->listens != b->listens) {
    return a->listens ? Reaches(b->host, a->host) : Reaches(a->host, b->host);
  }
  return a->host == b->host && a->further == b->further;
}

// The file that a use opens; none when it opens none.
std::optional<fs::path> FileOf(const WallFiles::Use& use, bool isWritten) {
  if (config::IsProcessStream(use.target)) {
    return isWritten ? kStandardOutput : kStandardInput;
  }
  const std::optional<std::string> path = config::LocalPath(use.target);
  return path ? std::optional<fs::path>(isWritten ? config::ExpandFileName(*path) : *path)
              : std::nullopt;
}

bool IsSame(const WallFiles::Use& written, const WallFiles::Use& other, bool otherIsWritten) {
  const std::optional<fs::path> file = FileOf(written, true);
  const std::optional<fs::path> otherFile = FileOf(other, otherIsWritten);
  if (!file || !otherFile) {
    return !file && !otherFile && IsSameAddress(written, other, otherIsWritten);
  }
  return IsSameFile(*file, *otherFile) || IsBeside(written, *file, *otherFile) ||
         IsBeside(other, *otherFile, *file) ||
         (ffmpeg::PipeOutput::IsStandardOutput(written.target) &&
          ffmpeg::PipeOutput::IsStandardOutput(other.target));
}

std::optional<config::Position> PlaceOf(const config::Places& places, const char* key) {
  const auto place = places.find(key);
  return place == places.end() ? std::nullopt : std::optional(place->second);
}

std::string Named(const WallFiles::Use& use, const fs::path& wallFile) {
  std::string text = use.what + " (\"" + ffmpeg::MaskUrl(use.target) + "\"";
  if (use.place && !wallFile.empty()) {
    text += ", " + wallFile.filename().string() + ":" + std::to_string(use.place->line) + ":" +
            std::to_string(use.place->column);
  }
  return text + ")";
}

}  // namespace

void WallFiles::Reads(Use use) {
  read_.push_back(std::move(use));
}

void WallFiles::Writes(Use use) {
  written_.push_back(std::move(use));
}

std::vector<WallFiles::Clash> WallFiles::Clashes() const {
  std::vector<Clash> clashes;
  for (std::size_t i = 0; i < written_.size(); ++i) {
    for (std::size_t k = 0; k < i; ++k) {
      if (IsSame(written_[i], written_[k], true)) {
        clashes.push_back({written_[i], written_[k]});
      }
    }
    for (const Use& read : read_) {
      if (IsSame(written_[i], read, false)) {
        clashes.push_back({written_[i], read});
      }
    }
  }
  return clashes;
}

std::vector<std::string> NamesBeside(const config::Output& output) {
  const std::optional<std::string> path = config::LocalPath(output.url);
  if (!path || (output.format.empty() ? !path->ends_with(".m3u8") : output.format != "hls")) {
    return {};
  }
  const std::string stem = fs::path(config::ExpandFileName(*path)).stem().string();
  return {stem + ".m3u8.part", stem + "_video.m3u8", stem + "_sound*.m3u8", stem + "_video_*.ts",
          stem + "_sound*_*.ts"};
}

WallFiles FilesOf(const config::Wall& wall, const RunFiles& run) {
  WallFiles files;
  if (!run.wallFile.empty()) {
    files.Reads({"the wall file", run.wallFile.string(), {}, {}, {}});
  }
  if (wall.canvas.background.kind == config::Background::Kind::kPicture) {
    files.Reads({"the background",
                 wall.canvas.background.picture.string(),
                 PlaceOf(wall.canvas.places, "background"),
                 {},
                 {}});
  }
  for (const config::Channel& channel : wall.channels) {
    const std::string name = " of channel \"" + channel.name + "\"";
    const auto reads = [&](const std::string& source, const char* key) {
      files.Reads(
          {"the source" + name, source, PlaceOf(channel.places, key), channel.options.options, {}});
    };
    for (const config::RenditionSource& each : channel.sources) {
      reads(each.source, "sources");
    }
    if (channel.sources.empty()) {
      reads(channel.source, "source");
    }
    if (channel.label.source == config::Label::Source::kFile) {
      files.Reads({"the label file" + name,
                   channel.label.file.string(),
                   PlaceOf(channel.places, "label_file"),
                   {},
                   {}});
    }
  }
  if (!run.library.empty()) {
    files.Reads({"--library", run.library.string(), {}, {}, {}});
  }
  bool toStandardOutput = false;
  for (std::size_t i = 0; i < run.outputs.size(); ++i) {
    const config::Output& output = run.outputs[i];
    toStandardOutput = toStandardOutput || ffmpeg::PipeOutput::IsStandardOutput(output.url);
    files.Writes({run.outputsAreArguments ? "--output" : "output " + std::to_string(i + 1),
                  output.url, PlaceOf(output.places, "url"), output.options, NamesBeside(output)});
  }
  // A file into which a stream is redirected must not be used otherwise.
  files.Reads({"the error stream", kStandardError, {}, {}, {}});
  if (!toStandardOutput) {
    files.Reads({"the standard output", kStandardOutput, {}, {}, {}});
  }
  const auto write = [&](const char* argument, const char* key, const std::optional<fs::path>& path,
                         bool isArgument, std::vector<std::string> beside = {}) {
    if (path && !path->empty()) {
      files.Writes({isArgument ? argument : std::string("[log] ") + key,
                    path->string(),
                    isArgument ? std::nullopt : PlaceOf(run.log.places, key),
                    {},
                    std::move(beside)});
    }
  };
  write("--log-file", "file", run.log.file, run.logArguments.file.has_value());
  write("--perf-file", "perf_file", run.log.perfFile, run.logArguments.perfFile.has_value());
  // It is written under another name first.
  write("--snapshot", "", run.snapshot, true, {run.snapshot.filename().string() + ".part"});
  return files;
}

std::string ToText(const WallFiles::Clash& clash, const fs::path& wallFile) {
  const bool isFile = FileOf(clash.written, true).has_value();
  return Named(clash.written, wallFile) + " is the same " + (isFile ? "file" : "address") + " as " +
         Named(clash.other, wallFile);
}

}  // namespace host
