// Small clips for tests, made on the spot.
#pragma once

#include <filesystem>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "host/channel/source/media_reader.h"
#include "host/cli/demo/clip_writer.h"

namespace host {

// A second of 160x90 at 25 frames per second with a stereo tone.
inline ClipRecipe SmallClip() {
  ClipRecipe recipe;
  recipe.name = "Small";
  recipe.pictures = "testsrc2=size=160x90:rate=25,format=yuv420p";
  recipe.audio = "sine=frequency=440:sample_rate=48000,aformat=channel_layouts=stereo";
  recipe.length = kSecond;
  return recipe;
}

inline std::filesystem::path Write(const ClipRecipe& recipe, const std::filesystem::path& file) {
  WriteClip(recipe, file);
  return file;
}

struct Content {
  std::vector<DecodedFrame> pictures;
  std::vector<AudioPacket> packets;
  std::vector<AudioSamples> samples;
};

// Reads an open source to its end.
template <typename Take>
void ReadEach(MediaReader& reader, Take take) {
  for (MediaItem item = reader.Read(); !std::holds_alternative<EndOfMedia>(item);
       item = reader.Read()) {
    take(std::move(item));
  }
}

inline Content ReadAll(MediaReader& reader) {
  Content content;
  ReadEach(reader, [&](MediaItem item) {
    if (auto* const frame = std::get_if<DecodedFrame>(&item)) {
      content.pictures.push_back(std::move(*frame));
    } else if (auto* const packet = std::get_if<AudioPacket>(&item)) {
      content.packets.push_back(std::move(*packet));
    } else if (auto* const samples = std::get_if<AudioSamples>(&item)) {
      content.samples.push_back(std::move(*samples));
    }
  });
  return content;
}

inline MediaReader::Settings Source(const std::filesystem::path& file) {
  MediaReader::Settings settings;
  settings.source = file.string();
  return settings;
}

inline std::unique_ptr<MediaReader> Opened(MediaReader::Settings settings) {
  auto reader = std::make_unique<MediaReader>(std::move(settings));
  reader->Open();
  return reader;
}

inline Content ReadFile(const std::filesystem::path& file) {
  return ReadAll(*Opened(Source(file)));
}

// A frame every 40 ms.
inline void ExpectSteady(const std::vector<DecodedFrame>& frames, Time tolerance) {
  for (std::size_t i = 1; i < frames.size(); ++i) {
    EXPECT_NEAR(frames[i].start - frames[i - 1].start, 400'000, tolerance) << i;
  }
}

}  // namespace host
