// Where a private font file is.
#pragma once

#include <string>
#include <vector>

namespace os {

// Absolute paths of the files of that bare name, in the order in which they are to be tried: in the
// current directory, beside the library or program that holds this code, beside the running
// program, in the installed data folder.
std::vector<std::string> FindPrivateFontFiles(const std::string& bareName);

}  // namespace os
