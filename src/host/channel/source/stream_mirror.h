// StreamMirror: what a demuxer knows of its source, without the demuxer.
#pragma once

#include <memory>
#include <vector>

struct AVCodecParameters;
struct AVFormatContext;

namespace host {

struct FreeMirror {
  void operator()(AVFormatContext* context) const noexcept;
};

// A format context that cannot be read from: a copy of a demuxer's public fields about the source,
// its streams and its programs. Code that only reads such fields works on it as on the demuxer: the
// choice of a stream, the guesses of frame rate and pixel aspect. Streams keep their places in it
// when the demuxer is replaced.
using StreamMirror = std::unique_ptr<AVFormatContext, FreeMirror>;

// Copies a demuxer or another mirror. Throws std::bad_alloc.
StreamMirror MakeMirror(const AVFormatContext& from);
// Makes the best streams of the demuxer the default ones of its mirror, and so of the copies of the
// mirror: only the demuxer knows how much has arrived of each stream.
void PreferBest(AVFormatContext& mirror, const AVFormatContext& demuxer);
// Whether UpdateMirror would change something. places: the place in the mirror, by index in from.
bool DiffersFrom(const AVFormatContext& mirror, const AVFormatContext& from,
                 const std::vector<int>& places);
// Adds and changes streams and programs, but removes none; discarded streams stay discarded, and
// the known parameters of a stream are not replaced by unprobed ones. Throws std::bad_alloc.
void UpdateMirror(AVFormatContext& mirror, const AVFormatContext& from,
                  const std::vector<int>& places);
// Sets the parameters of a stream that its demuxer does not know.
void SetForm(AVFormatContext& mirror, int place, const AVCodecParameters& form);

// The places in the mirror of the streams of a demuxer that has replaced another one; new streams
// get places after all others.
std::vector<int> PlacesIn(const AVFormatContext& mirror, const AVFormatContext& from);

}  // namespace host
