// What a source over HTTP may need beyond being opened.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "host/ffmpeg/handles.h"
#include "host/ffmpeg/io_deadline.h"

namespace host {

// Whether a source that was opened without success, with this AVERROR code, may be had as a stream
// from its beginning: some servers refuse a request for a range of bytes, others promise ranges and
// do not keep to them.
bool MayKnowNoRanges(int code);

// Whether the beginning of a file in the MP4 family shows that its data come before the index that
// is needed to read them.
bool DataComesFirst(std::span<const std::uint8_t> beginning);

// The same of a file on a server that knows no byte ranges, from a connection of its own. False
// when the deadline ends it first.
bool ServesDataFirst(const std::string& url, ffmpeg::Options& options,
                     ffmpeg::IoDeadline& deadline);

}  // namespace host
