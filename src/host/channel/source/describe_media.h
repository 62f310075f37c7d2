// Reads the facts about an opened source out of FFmpeg's structures.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "host/channel/source/media_info.h"
#include "host/units.h"

struct AVFormatContext;
struct AVFrame;
struct AVStream;

namespace host {

// Container, length, service name and all audio tracks; which video and audio are used is left
// open.
MediaInfo DescribeMedia(const AVFormatContext& input);
// Whether its container is of the MP4 family.
bool IsMp4(const AVFormatContext& input);
VideoInfo DescribeVideo(AVFormatContext& input, AVStream& stream);
AudioInfo DescribeAudio(const AVStream& stream);

// Cover art of a file: FFmpeg counts it as video, but it is none.
bool IsCoverArt(const AVStream& stream);

// Index of the best video stream, or a negative AVERROR.
int ChooseVideoStream(const AVFormatContext& input);

// Index of the audio stream that the wishes of a channel select, or a negative AVERROR. track is
// counted from 1, 0 for no wish; videoStream (or -1) decides between equal ones.
int ChooseAudioStream(const AVFormatContext& input, std::size_t track, const std::string& language,
                      int videoStream);

// Of their display matrix, where there is one.
std::optional<Orientation> AnnouncedOrientation(const AVFrame& frame);
std::optional<Orientation> AnnouncedOrientation(const AVStream& stream);

// After how long the timestamps of the stream begin again from 0; 0: never.
Time WrapPeriod(const AVStream& stream);

}  // namespace host
