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
using testing::ElementsAre;
using testing::UnorderedElementsAre;

class FileOperations : public testing::Test {
 protected:
  std::string At(const std::string& name) const { return os::SystemPath((folder / name).string()); }
  static std::vector<std::string> Names(const std::vector<File>& files) {
    std::vector<std::string> names;
    for (const File& file : files) {
      names.push_back(file.Components().back());
    }
    return names;
  }
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

TEST(File, DropsEmptyPartsAndSingleDotsOfAPath) {
  EXPECT_EQ(File("C:\\data\\.\\logs\\\\").Path(), "C:\\data\\logs");
  EXPECT_EQ(File(".\\..\\a\\..").Path(), ".\\..\\a\\..")
      << "only parts after the first are dropped";
  EXPECT_THAT(File("\\\\server\\\\share").Components(), ElementsAre("\\\\server", "share"));
  EXPECT_EQ(File("\\root\\x").Path(), "\\root\\x");
}

TEST_F(FileOperations, CreateWholeChainsOfDirectories) {
  fs::create_directory(folder / "a");
  WriteWholeFile(folder / "f", "a file in the way");
  File(At("a\\b\\c")).CreateDirectories();
  File(At("a\\b\\c")).CreateDirectories();
  File(At("f\\d")).CreateDirectories();
  EXPECT_TRUE(fs::is_directory(folder / "a/b/c"));
  EXPECT_TRUE(fs::is_directory(folder / "f/d"));
  EXPECT_TRUE(File(At("f\\d")).IsDirectory());
  EXPECT_FALSE(File(At("f\\e")).Exists());
}

TEST_F(FileOperations, TellWhatIsWrongOrWasRefused) {
  for (const std::string path : {"", "\\", "\\\\"}) {
    EXPECT_EQ(FailureOf([&] { const File file(path); }), "invalid path [" + path + "]");
  }
  fs::create_directory(folder / "full");
  WriteWholeFile(folder / "full/x", "");
  EXPECT_EQ(FailureOf([&] { File(At("no\\b")).CreateDirectory(); }),
            "could not create directory [" + At("no\\b") + "]: Win32 error 3");
  EXPECT_EQ(FailureOf([&] { File(At("full")).CreateDirectory(); }),
            "could not create directory [" + At("full") + "]: Win32 error 183");
  EXPECT_EQ(FailureOf([&] { File(At("no")).RemoveFile(); }),
            "could not remove file [" + At("no") + "]: Win32 error 2");
  EXPECT_EQ(FailureOf([&] { File(At("full")).RemoveFile(); }),
            "could not remove file [" + At("full") + "]: Win32 error 5");
  EXPECT_EQ(FailureOf([&] { File(At("no")).Enumerate([](const File&, bool) {}); }),
            "could not enumerate the contents of [" + At("no") + "]: Win32 error 3");
  EXPECT_EQ(FailureOf<std::runtime_error>([&] { File(At("full\\x")).GetEntries(); }),
            At("full\\x") + " is not a directory");
}

TEST_F(FileOperations, RemoveTakesTreesButDoesNotFollowLinks) {
  fs::create_directories(folder / "tree/deep/er");
  WriteWholeFile(folder / "tree/deep/file", "x");
  fs::create_directory(folder / "kept");
  WriteWholeFile(folder / "kept/precious", "x");
  fs::create_directory_symlink(folder / "kept", folder / "tree/link");
  fs::create_symlink(folder / "nowhere", folder / "tree/dangling");
  File(At("tree")).Remove();
  File(At("tree")).Remove();
  EXPECT_FALSE(fs::exists(folder / "tree"));
  EXPECT_TRUE(fs::exists(folder / "kept/precious"));
}

TEST_F(FileOperations, CopyReplacesWhatIsInTheWay) {
  fs::create_directories(folder / "from/sub");
  WriteWholeFile(folder / "from/one", "new");
  WriteWholeFile(folder / "from/sub/two", "2");
  fs::create_directories(folder / "to/from/one/was a directory");
  WriteWholeFile(folder / "to/from/other", "stays");
  File(At("from")).CopyTo(File(At("to")));
  EXPECT_EQ(ReadWholeFile(folder / "to/from/one"), "new");
  EXPECT_EQ(ReadWholeFile(folder / "to/from/sub/two"), "2");
  EXPECT_THAT(Names(File(At("to\\from")).GetEntries()),
              UnorderedElementsAre("one", "sub", "other"));
  File(At("to\\from")).Enumerate([](const File& entry, bool isDirectory) {
    EXPECT_EQ(isDirectory, entry.Components().back() == "sub") << entry.Path();
  });
  EXPECT_THROW(File(At("to")).Enumerate([](const File&, bool) { throw std::logic_error("mine"); }),
               std::logic_error);
}

TEST_F(FileOperations, CopyRefusesWhatWouldDestroyTheOriginal) {
  fs::create_directories(folder / "d/d");
  WriteWholeFile(folder / "file", "x");
  WriteWholeFile(folder / "d/d/d", "inside its own target");
  const auto failure = [&](const std::string& from, const std::string& to) {
    return FailureOf<std::runtime_error>([&] { File(At(from)).CopyTo(File(At(to))); });
  };
  EXPECT_EQ(failure("file", ""), "cannot copy " + At("file") + " to " + File(At("file")).Path());
  EXPECT_EQ(failure("d", "d\\e"), "cannot copy " + At("d") + " to " + At("d\\e\\d"));
  EXPECT_EQ(failure("d\\d\\d", "d"), "cannot copy " + At("d\\d\\d") + " to " + At("d\\d"));
  EXPECT_EQ(failure("no", "d"), "cannot copy " + At("no") + " to " + At("d\\no"));
  EXPECT_EQ(ReadWholeFile(folder / "file"), "x");
  EXPECT_EQ(ReadWholeFile(folder / "d/d/d"), "inside its own target");
}

TEST_F(FileOperations, ADriveIsTheRootOfAFile) {
  const std::string name = At("not there yet");
  const Drive::Root root = Drive::RootOfFile(name);
  const std::vector<std::string> all = Drive::GetDriveList();
  ASSERT_LT(root.number, all.size());
  EXPECT_EQ(all[root.number], root.path);
  EXPECT_TRUE(name.starts_with(root.path));
  EXPECT_EQ(Drive(root.path).GetTotalSpace(), fs::space(os::NativePath(root.path)).capacity);
  const auto failure = [](auto operation) { return FailureOf<Drive::Exception>(operation); };
  EXPECT_EQ(failure([] { Drive("\\no such volume\\"); }), "Invalid path");
  EXPECT_EQ(failure([&] { Drive(os::SystemPath(folder.Path().string())); }),
            "Could not create drive");
  EXPECT_EQ(failure([] { Drive::RootOfFile("name.log"); }),
            "Could not get drive number from file name name.log.");
}

}  // namespace
