// Finds what somebody meant to write.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host::config {

// The known name that the written one most resembles: a common other word for it ("fps" for
// "frame_rate"), or one that a few slips away give; nothing when none is near.
std::optional<std::string> NearestName(std::string_view written,
                                       const std::vector<std::string>& known);

}  // namespace host::config
