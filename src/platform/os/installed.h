// Where the installed parts of the program are: found from where it runs, so that a tree that is
// installed may be moved as a whole.
#pragma once

#include <filesystem>
#include <vector>

namespace os {

// Folders of installed data, in the order in which they are to be searched: as the running program
// and the library that holds this code are installed, as was configured when they were built, and
// those of all users (XDG_DATA_DIRS). Absolute; they may not exist, and may be the same.
std::vector<std::filesystem::path> DataFolders();

// Where the program's filter libraries are installed; empty when it is not known where it runs.
std::filesystem::path LibraryFolder();

}  // namespace os
