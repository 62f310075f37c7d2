// StreamMirror: what a demuxer says of its source, without the demuxer.
#pragma once

#include <memory>
#include <vector>

struct AVCodecParameters;
struct AVFormatContext;

namespace host {

struct FreeMirror {
  void operator()(AVFormatContext* context) const noexcept;
};

// A format context of which nothing can be read: its public fields say what those of a demuxer said
// of the source, its streams and its programs. All that only looks at such fields works on it as it
// does on the demuxer: the choice of a stream, the guesses of frame rate and pixel aspect. Streams
// keep their places in it, whatever happens to the demuxer.
using StreamMirror = std::unique_ptr<AVFormatContext, FreeMirror>;

// Of a demuxer or of another mirror. Throws std::bad_alloc.
StreamMirror MakeMirror(const AVFormatContext& from);
// The best streams of the demuxer that it is of are its default ones, and those of its copies: only
// the demuxer knows of which stream most has come.
void PreferBest(AVFormatContext& mirror, const AVFormatContext& demuxer);
// Whether UpdateMirror would change something. places: by index in from, the place in the mirror.
bool DiffersFrom(const AVFormatContext& mirror, const AVFormatContext& from,
                 const std::vector<int>& places);
// Adds and changes streams and programs. None is removed, and what is discarded stays so; a stream
// of a known form does not lose it to one that was never probed. Throws std::bad_alloc.
void UpdateMirror(AVFormatContext& mirror, const AVFormatContext& from,
                  const std::vector<int>& places);
// The stream has that form, which its demuxer does not know.
void SetForm(AVFormatContext& mirror, int place, const AVCodecParameters& form);

// From the streams of a demuxer that has replaced another one to the same streams in the mirror;
// what is new gets places behind all others.
std::vector<int> PlacesIn(const AVFormatContext& mirror, const AVFormatContext& from);

}  // namespace host
