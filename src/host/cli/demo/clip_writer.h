// Makes clips from recipes.
#pragma once

#include <filesystem>
#include <vector>

#include "host/cli/demo/clip_recipe.h"

namespace host {

// Writes the clip; the name of the file decides about the container. The same recipe gives the same
// pictures and samples each time. Throws ffmpeg::Error.
void WriteClip(const ClipRecipe& recipe, const std::filesystem::path& file);

// Writes all of them into a folder, named "01-name" and so on with their extensions, on as many
// threads as there are processors, and returns the files in the order of the recipes. Throws the
// first failure, after all threads have ended.
std::vector<std::filesystem::path> WriteClips(const std::vector<ClipRecipe>& recipes,
                                              const std::filesystem::path& folder);

}  // namespace host
