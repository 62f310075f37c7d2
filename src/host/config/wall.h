// A wall as plain data: what its file says, checked and completed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/config/diagnostics.h"
#include "host/units.h"

namespace host::config {

struct Endpoint {
  std::string host;
  std::uint16_t port = 0;

  bool operator==(const Endpoint&) const = default;
};

// As the arguments, the environment or a wall file give it; what none of them gives has the
// program's default.
struct LogOptions {
  std::optional<int> level;                       // 0 errors to 3 everything
  std::optional<std::filesystem::path> file;      // circular log file; empty: none
  std::optional<std::int32_t> size;               // bytes of each file; 0: no limit
  std::optional<Endpoint> syslog;                 // empty host: none
  std::optional<std::filesystem::path> perfFile;  // circular file of records; empty: none
  std::optional<Time> perfPeriod;                 // between two records
  Places places;                                  // of what a wall file gives

  bool operator==(const LogOptions&) const = default;
};

inline constexpr int kHighestLogLevel = 3;
inline constexpr Time kMinPerfPeriod = kSecond / 10;
inline constexpr Time kMaxPerfPeriod = 86'400 * kSecond;

// Of each option the first one that is given.
inline LogOptions FirstOf(LogOptions first, const LogOptions& second) {
  const auto fill = [](auto& option, const auto& other) {
    if (!option) {
      option = other;
    }
  };
  fill(first.level, second.level);
  fill(first.file, second.file);
  fill(first.size, second.size);
  fill(first.syslog, second.syslog);
  fill(first.perfFile, second.perfFile);
  fill(first.perfPeriod, second.perfPeriod);
  first.places = second.places;
  return first;
}

inline constexpr std::size_t kMaxChannels = 36;
inline constexpr int kSmallestCanvas = 16;
inline constexpr int kLargestCanvas = 8192;
inline constexpr Time kMinDelay = kSecond / 5;
inline constexpr Time kMaxDelay = kSecond;  // the latency of the composer's windows

struct Rgb {
  std::uint8_t red = 0;
  std::uint8_t green = 0;
  std::uint8_t blue = 0;

  bool operator==(const Rgb&) const = default;
};

// In canvas pixels; all four even.
struct Window {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;

  bool operator==(const Window&) const = default;
};

// How windows that the wall file does not place, and those of the built-in layouts, are placed.
struct LayoutRules {
  std::optional<int> columns;    // none: as many as give the largest windows
  std::optional<int> gap;        // pixels between windows; none: a 135th of the canvas's height
  std::optional<int> margin;     // pixels around them all; none: the same
  std::optional<int> labelRoom;  // pixels under each window; none: LabelRoom, or 0 without labels
  std::optional<Ratio> windowAspect;  // as shown; none: that of the canvas
  bool operator==(const LayoutRules&) const = default;
};

// Places for the channels of a wall, under a name.
struct Layout {
  struct Place {
    Window window;
    std::string channel;  // that is shown there; empty: the next one in order
    bool operator==(const Place&) const = default;
  };
  std::string name;
  std::vector<Place> places;
  bool operator==(const Layout&) const = default;
};

struct Background {
  enum class Kind { kColour, kGradient, kPicture };
  Kind kind = Kind::kGradient;
  Rgb top{0x1B, 0x22, 0x2B};     // the colour, or the gradient's upper end
  Rgb bottom{0x0A, 0x0D, 0x11};  // the gradient's lower end
  std::filesystem::path picture;
  bool operator==(const Background&) const = default;
};

struct Canvas {
  int width = 1920;
  int height = 1080;
  Ratio frameRate{25, 1};
  Ratio aspect{16, 9};  // width to height of the shown frame, reduced
  Background background;
  int clockOffset = 0;     // ppm by which the wall's time runs faster than the machine's
  Time preroll = 0;        // period of the frames that are marked as preroll; 0: none
  Time delay = kMaxDelay;  // of a live wall: how long after its time a frame is shown
  Places places;

  bool operator==(const Canvas&) const = default;
  // Width to height of one pixel, reduced.
  Ratio pixelAspect() const {
    const qorp::WideRatio shape = qorp::PixelAspect(width, height, aspect);
    return {static_cast<std::int32_t>(shape.num), static_cast<std::int32_t>(shape.den)};
  }
};

struct Label {
  enum class Source {
    kNone,
    kText,
    kFile,     // the text of a file that may change while the wall runs
    kService,  // the source's own service name
  };
  Source source = Source::kText;
  std::string text;            // kText; for kService what is shown until the name is known
  std::filesystem::path file;  // kFile
  bool operator==(const Label&) const = default;
};

// How much of a live channel's video is decoded; see DecodePolicy.
enum class Decode { kAuto, kFull, kEconomy, kKeyframes };
const char* NameOf(Decode decode);  // as in the wall file

enum class DeinterlaceMode {
  kOff,
  kAuto,    // frames that are marked as interlaced; each field when the canvas is fast enough
  kFrames,  // every frame, one for each frame
  kFields,  // every frame, one for each field
};

struct AudioOptions {
  bool enabled = true;  // a track of the outputs, and levels
  bool meter = true;    // levels are drawn
  // Counted from 1; 0: chosen by language, otherwise the source's first choice.
  std::size_t track = 0;
  std::string language;  // ISO 639; chooses the track, and names it where the source does not
  bool operator==(const AudioOptions&) const = default;
};

enum class AlarmKind { kLoss, kBlack, kFreeze, kSilence, kClipping };
inline constexpr std::size_t kAlarmKinds = 5;
inline constexpr std::array<AlarmKind, kAlarmKinds> kAllAlarms{
    AlarmKind::kLoss, AlarmKind::kBlack, AlarmKind::kFreeze, AlarmKind::kSilence,
    AlarmKind::kClipping};

// As in the wall file: "loss", "black", "freeze", "silence", "clipping".
const char* NameOf(AlarmKind kind);

// When a condition raises its alarm and when the alarm is cleared.
struct Alarm {
  bool enabled = true;
  double level = 0;  // see AlarmOptions
  Time setAfter = 0;
  Time clearAfter = kSecond;
  bool operator==(const Alarm&) const = default;
};

struct AlarmOptions {
  Alarm loss{true, 0, kSecond, kSecond};            // no frame; no level
  Alarm black{true, 10, 5 * kSecond, kSecond};      // brightest percent that counts as black
  Alarm freeze{true, -60, 5 * kSecond, kSecond};    // largest change in dB that counts as none
  Alarm silence{true, -60, 10 * kSecond, kSecond};  // loudest peak in dBFS that counts as silence
  // Peak in dBFS from which it counts as clipping; two a second within the time to set.
  Alarm clipping{true, -0.1, 2 * kSecond, 2 * kSecond};

  const Alarm& operator[](AlarmKind kind) const {
    const std::array<const Alarm*, kAlarmKinds> all{&loss, &black, &freeze, &silence, &clipping};
    return *all[static_cast<std::size_t>(kind)];
  }
  bool operator==(const AlarmOptions&) const = default;
};

// What a muted channel's track carries. Operators mute channels; no wall file says it.
enum class Mute {
  kOff,      // its audio
  kSilence,  // silence in the track's format
  kNothing,  // no packets
};

// What may also be set for all channels at once.
struct ChannelOptions {
  std::string colour = "#FFFFFF";  // of the label, in one of the composer's forms
  bool enabled = true;
  DeinterlaceMode deinterlace = DeinterlaceMode::kAuto;
  Decode decode = Decode::kAuto;
  bool repeat = true;       // files begin again when the wall runs live
  Time hold = 5 * kSecond;  // the last frame stays for that long when the source stops
  Time openLimit = 10 * kSecond;
  Time readLimit = 5 * kSecond;  // for each packet; live, for each frame
  int decoderThreads = 1;        // 1: decodes on the reading thread
  AudioOptions audio;
  AlarmOptions alarm;
  std::map<std::string, std::string> options;  // of FFmpeg's protocol and container
  bool operator==(const ChannelOptions&) const = default;
};

// One of several sizes of the same content.
struct RenditionSource {
  std::string source;
  int width = 0;  // pixels; 0: learnt when it is opened
  int height = 0;
  bool operator==(const RenditionSource&) const = default;
};

// Which program of a multiplex: by number or by the name of its service; neither: as it comes.
struct ProgramChoice {
  int number = 0;  // 1 to 65535; 0: by name
  std::string name;

  bool isGiven() const { return number != 0 || !name.empty(); }
  bool operator==(const ProgramChoice&) const = default;
};
inline constexpr int kMaxProgram = 65'535;

struct Channel {
  std::string name;
  std::string source;  // a URL, or a path that is absolute or relative to the working folder
  std::vector<RenditionSource> sources;  // where there are several; source is the first one then
  ProgramChoice program;
  Window window;
  bool selected = false;
  std::optional<int> tallyIndex{};  // number of the display that tally messages are about
  Label label;
  ChannelOptions options;
  Places places;
  bool operator==(const Channel&) const = default;
};

// How the mosaic is encoded.
struct Encoding {
  std::string codec = "h264";  // FFmpeg's name of a codec or of an encoder
  std::string preset = "veryfast";
  std::int64_t bitRate = 0;       // bits per second; 0: constant quality
  std::optional<double> quality;  // of libx264's scale, 0 (best) to 51; used without bit rate
  Time keyFrameInterval = 2 * kSecond;
  bool lowDelay = false;  // no reordering, no look-ahead

  bool operator==(const Encoding&) const = default;
};

struct Output : Encoding {
  std::string url;     // as for a channel's source
  std::string format;  // empty: by the name
  bool audio = true;
  // How long a live output waits at its start for audio formats that are not known yet.
  Time audioWait = 700 * kMillisecond;
  bool overwrite = false;                      // a file that exists is replaced
  Time segment = 0;                            // length of the files of a recording; 0: one file
  std::int64_t segmentSize = 0;                // bytes, likewise
  std::map<std::string, std::string> options;  // of FFmpeg's container and protocol
  Places places;
  bool operator==(const Output&) const = default;
};

// An output that shows a running wall on a display of this machine, without encoding it.
struct Screen {
  int display = 0;  // counted from 0
  int width = 0;    // of the window, in the display's units; 0: full screen
  int height = 0;
  bool audio = false;  // of the channel that is followed, otherwise of the one that is selected
  Places places;
  bool operator==(const Screen&) const = default;
};

// What viewers of the running wall get over HTTP.
struct PreviewOptions {
  bool enabled = true;
  int width = 960;  // pixels; the largest size of the canvas's shape that fits is sent
  int height = 540;
  std::optional<Ratio> frameRate;    // none: that of the canvas
  std::int64_t bitRate = 1'500'000;  // bits per second at most
  bool operator==(const PreviewOptions&) const = default;
};

// The HTTP API of a running wall.
struct Http {
  std::optional<Endpoint> listen;     // an address of this machine; none: no server
  std::filesystem::path tokenFile;    // empty: none, which an address on loopback may do without
  std::filesystem::path certificate;  // chain, PEM; with a key: TLS
  std::filesystem::path key;
  std::vector<std::string> hosts;  // further names by which clients address the wall
  PreviewOptions preview;
  Places places;

  bool operator==(const Http&) const = default;
};

// Where a running wall takes commands from programs of this machine.
struct ControlOptions {
  std::optional<std::filesystem::path> socket;  // none: the usual place; empty: none at all
  bool operator==(const ControlOptions&) const = default;
};

// Tally and texts from switchers and controllers.
struct TallyOptions {
  enum class Protocol { kAuto, kV31, kV40, kV50 };
  struct Listen {
    bool isTcp = false;
    Endpoint at;
    bool operator==(const Listen&) const = default;
  };
  std::vector<Listen> listen;  // empty: no tally
  Protocol protocol = Protocol::kAuto;
  std::vector<std::string> senders;     // addresses, or networks such as 10.0.0.0/24; empty: all
  std::map<int, std::string> displays;  // display number to channel, before the channels' own
  std::vector<int> red{1};              // tally bits of version 3.1, 1 to 4
  std::vector<int> green{2};
  bool text = true;  // texts become labels
  bool operator==(const TallyOptions&) const = default;
};

struct Wall {
  Canvas canvas;
  std::vector<Channel> channels;
  std::vector<Output> outputs;
  std::vector<Screen> screens;
  LogOptions log;
  Http http;
  LayoutRules rules;
  bool placesWindows = false;   // no channel gives its window: the rules place them
  ChannelOptions defaults;      // of channels that are added
  std::vector<Layout> layouts;  // the file's own
  int spare = 0;                // channels that can be added while the wall runs
  bool follow = false;          // outputs have one more track: the audio of the channel followed
  // The layout with which a running wall begins: "auto", "file" (the windows of the file), a
  // built-in one, or one of the file or of the book beside it. Empty: "auto" or "file", by
  // placesWindows.
  std::string layout;
  ControlOptions control;
  TallyOptions tally;

  bool operator==(const Wall&) const = default;
};

// The lines of the canvas that a label of one line takes under its window.
int LabelRoom(int canvasHeight);

}  // namespace host::config
