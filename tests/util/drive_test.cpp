#include <algorithm>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/os/files.h"
#include "tests/support/temporary_folder.h"
#include "util/file.h"

namespace {

using qorp::Drive;
using testing::Contains;
using testing::StartsWith;
using testing::StrEq;

template <typename Operation>
std::string FailureOf(Operation operation) {
  try {
    operation();
  } catch (const Drive::Exception& failure) {
    return failure.what();
  }
  return "no failure";
}

TEST(Drive, KnowsTheRootOfAFileAndItsSize) {
  const TemporaryFolder folder;
  const std::string name = os::SystemPath((folder / "not there yet").string());
  const Drive::Root root = Drive::RootOfFile(name);
  const std::vector<std::string> all = Drive::GetDriveList();
  ASSERT_LT(root.number, all.size());
  EXPECT_EQ(all[root.number], root.path);
  EXPECT_THAT(name, StartsWith(root.path));
  EXPECT_EQ(Drive(root.path).GetTotalSpace(),
            std::filesystem::space(os::NativePath(root.path)).capacity);
  EXPECT_THAT(all, Contains("\\"));
}

TEST(Drive, RefusesWhatIsNoRoot) {
  const TemporaryFolder folder;
  EXPECT_EQ(FailureOf([] { Drive("\\no such volume\\"); }), "Invalid path");
  EXPECT_EQ(FailureOf([] { Drive(""); }), "Invalid path");
  EXPECT_EQ(FailureOf([&] { Drive(os::SystemPath(folder.Path().string())); }),
            "Could not create drive");
  EXPECT_EQ(FailureOf([] { Drive::RootOfFile("name.log"); }),
            "Could not get drive number from file name name.log.");
}

TEST(Drive, TellsWhyAVolumeCannotBeUsed) {
  EXPECT_THAT(qorp::VolumeErrorText(2), StrEq("Invalid path"));
  EXPECT_THAT(qorp::VolumeErrorText(123), StrEq("Invalid path"));
  EXPECT_THAT(qorp::VolumeErrorText(5), StrEq("Device is not available"));
  EXPECT_THAT(qorp::VolumeErrorText(21), StrEq("Device is not ready."));
  EXPECT_THAT(qorp::VolumeErrorText(31), StrEq("Could not create drive"));
}

}  // namespace
