#include "util/file.h"

#include <filesystem>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/os/files.h"
#include "tests/support/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using qorp::Drive;
using qorp::File;

class FileOperations : public testing::Test {
 protected:
  std::string At(const std::string& name) const { return os::SystemPath((folder / name).string()); }
  template <typename Exception = File::Exception, typename Operation>
  static std::string FailureOf(Operation operation) {
    try {
      operation();
    } catch (const Exception& failure) {
      return failure.what();
    }
    return "no failure";
  }

  const TemporaryFolder folder;
};

TEST_F(FileOperations, MakeCopyAndRemoveWholeTrees) {
  WriteWholeFile(folder / "f", "a file in the way");
  for (const char* const name : {"a\\b\\c", "a\\b\\c", "f\\d"}) {
    File(At(name)).CreateDirectories();
    EXPECT_TRUE(File(At(name)).IsDirectory()) << name;
  }
  EXPECT_FALSE(File(At("f\\e")).Exists());

  WriteWholeFile(folder / "a/one", "new");
  WriteWholeFile(folder / "a/b/two", "2");
  fs::create_directories(folder / "to/a/one/was a directory");
  WriteWholeFile(folder / "to/a/other", "stays");
  File(At("a")).CopyTo(File(At("to")));
  EXPECT_EQ(ReadWholeFile(folder / "to/a/one"), "new");
  EXPECT_EQ(ReadWholeFile(folder / "to/a/b/two"), "2");
  std::vector<std::string> entries;
  File(At("to\\a")).Enumerate([&](const File& entry, bool isDirectory) {
    entries.push_back(entry.Components().back() + (isDirectory ? "\\" : ""));
  });
  EXPECT_THAT(entries, testing::UnorderedElementsAre("b\\", "one", "other"));
  EXPECT_EQ(File(At("to\\a")).GetEntries().size(), 3U);

  // Links are not followed.
  fs::create_directory_symlink(folder / "f", folder / "to/link");
  fs::create_symlink(folder / "nowhere", folder / "to/dangling");
  File(At("to")).Remove();
  File(At("to")).Remove();
  EXPECT_FALSE(fs::exists(folder / "to"));
  EXPECT_TRUE(fs::exists(folder / "f/d"));
}

TEST_F(FileOperations, TellWhatIsWrongOrWasRefusedAndDestroyNothing) {
  fs::create_directories(folder / "d/d");
  WriteWholeFile(folder / "file", "x");
  WriteWholeFile(folder / "d/d/d", "inside its own target");
  EXPECT_EQ(FailureOf([&] { File(At("no\\b")).CreateDirectory(); }),
            "could not create directory [" + At("no\\b") + "]: Win32 error 3");
  EXPECT_EQ(FailureOf([&] { File(At("d")).CreateDirectory(); }),
            "could not create directory [" + At("d") + "]: Win32 error 183");
  EXPECT_EQ(FailureOf([&] { File(At("no")).RemoveFile(); }),
            "could not remove file [" + At("no") + "]: Win32 error 2");
  EXPECT_EQ(FailureOf([&] { File(At("d")).RemoveFile(); }),
            "could not remove file [" + At("d") + "]: Win32 error 5");
  EXPECT_EQ(FailureOf([&] { File(At("no")).Enumerate([](const File&, bool) {}); }),
            "could not enumerate the contents of [" + At("no") + "]: Win32 error 3");
  EXPECT_EQ(FailureOf<std::runtime_error>([&] { File(At("file")).GetEntries(); }),
            At("file") + " is not a directory");
  for (const auto& [from, to, what] : {std::tuple("file", "", "file"),
                                       {"d", "d\\e", "d\\e\\d"},
                                       {"d\\d\\d", "d", "d\\d"},
                                       {"no", "d", "d\\no"}}) {
    EXPECT_EQ(FailureOf<std::runtime_error>([&] { File(At(from)).CopyTo(File(At(to))); }),
              "cannot copy " + At(from) + " to " + At(what));
  }
  EXPECT_EQ(ReadWholeFile(folder / "file"), "x");
  EXPECT_EQ(ReadWholeFile(folder / "d/d/d"), "inside its own target");
}

TEST_F(FileOperations, ADriveIsTheRootOfAFile) {
  const std::string name = At("not there yet");
  const Drive::Root root = Drive::RootOfFile(name);
  EXPECT_EQ(Drive::GetDriveList().at(root.number), root.path);
  EXPECT_TRUE(name.starts_with(root.path));
  EXPECT_EQ(Drive(root.path).GetTotalSpace(), fs::space(os::NativePath(root.path)).capacity);
  const auto failure = [](auto operation) { return FailureOf<Drive::Exception>(operation); };
  EXPECT_EQ(failure([] { Drive("\\no such volume\\"); }), "Invalid path");
  EXPECT_EQ(failure([&] { Drive{At("")}; }), "Could not create drive");
  EXPECT_EQ(failure([] { Drive::RootOfFile("name.log"); }),
            "Could not get drive number from file name name.log.");
}

}  // namespace
