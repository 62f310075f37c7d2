// Reads the facts about an opened source out of FFmpeg's structures.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/source/media_info.h"
#include "host/config/wall.h"
#include "host/units.h"

struct AVFormatContext;
struct AVFrame;
struct AVProgram;
struct AVStream;

namespace host {

// Container, length, service name and all audio tracks; which video and audio are used is left
// open.
MediaInfo DescribeMedia(const AVFormatContext& input);
// Whether its container is of the MP4 family.
bool IsMp4(const AVFormatContext& input);
VideoInfo DescribeVideo(AVFormatContext& input, AVStream& stream);
AudioInfo DescribeAudio(const AVStream& stream);

// The how-many-th of its kind a stream is, counted from 0. index: of the stream in the input.
int OrdinalOf(const AVFormatContext& input, int index);
// Index in another demuxer of the same source of the stream that has that index in the former one;
// -1 where it is not, or in another codec.
int SameStreamIn(const AVFormatContext& input, const AVFormatContext& former, int index);

// Cover art of a file: FFmpeg counts it as video, but it is none.
bool IsCoverArt(const AVStream& stream);

// Those of a transport stream that have streams; others have none.
std::vector<ProgramInfo> DescribePrograms(AVFormatContext& input);
// The names of their services, by number.
std::map<int, std::string> ProgramNames(const AVFormatContext& input);
// Null when it is not there, or has no streams.
const AVProgram* FindProgram(const AVFormatContext& input, const config::ProgramChoice& wanted);
bool IsIn(const AVProgram& program, int stream);
// As the container has it; null when it has none. program may be null.
const char* ServiceName(const AVProgram* program);

// Index of the best video stream, of the program unless that is null, or a negative AVERROR.
int ChooseVideoStream(const AVFormatContext& input, const AVProgram* program = nullptr);

// Index of the audio stream that the wishes of a channel select, or a negative AVERROR. track is
// counted from 1, 0 for no wish; videoStream (or -1) decides between equal ones. Of the program
// alone unless that is null.
int ChooseAudioStream(const AVFormatContext& input, std::size_t track, const std::string& language,
                      int videoStream, const AVProgram* program = nullptr);

// Of their display matrix, where there is one.
std::optional<Orientation> AnnouncedOrientation(const AVFrame& frame);
std::optional<Orientation> AnnouncedOrientation(const AVStream& stream);

// After how long the timestamps of the stream begin again from 0; 0: never.
Time WrapPeriod(const AVStream& stream);

}  // namespace host
