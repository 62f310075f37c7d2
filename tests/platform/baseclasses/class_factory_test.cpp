#include "platform/baseclasses/class_factory.h"

#include <filesystem>
#include <memory>

#include <gtest/gtest.h>

#include "platform/os/registry.h"
#include "tests/support/fake_filters.h"
#include "tests/support/temporary_folder.h"

namespace {

constexpr CLSID kClass{9, 8, 7, {6, 5, 4, 3, 2, 1, 0, 9}};

CUnknown* MakeSink(IUnknown* /*outer*/, HRESULT* /*hr*/) {
  return std::make_unique<fakes::Sink>().release();
}

class RegistrationTest : public testing::Test {
 protected:
  RegistrationTest() { setenv("TAVREL_REGISTRY", (folder_ / "registry").c_str(), 1); }
  ~RegistrationTest() override { unsetenv("TAVREL_REGISTRY"); }

  const TemporaryFolder folder_;
};

TEST_F(RegistrationTest, WritesWhatAHostLooksUpAndTakesItOutAgain) {
  const AMOVIESETUP_MEDIATYPE type{&MEDIATYPE_Audio, nullptr};
  const AMOVIESETUP_PIN pin{u"In", FALSE, FALSE, FALSE, TRUE, &CLSID_NULL, u"Output", 1, &type};
  const AMOVIESETUP_FILTER filter{&kClass, u"Sink = of \\ all", MERIT_DO_NOT_USE, 1, &pin};
  const CFactoryTemplate entry{u"Sink", &kClass, &MakeSink, nullptr, &filter};
  ASSERT_EQ(RegisterClassTemplate(entry), S_OK);
  ASSERT_EQ(RegisterClassTemplate(entry), S_OK) << "twice is as good as once";
  const std::string guid = GuidToString(kClass);
  os::RegistryTree tree = os::Registry::OfUser().Read();
  EXPECT_EQ(tree.Get("CLSID\\" + guid, ""), "Sink");
  EXPECT_EQ(tree.Get("CLSID\\" + guid + "\\InprocServer32", "ThreadingModel"), "Both");
  EXPECT_TRUE(std::filesystem::exists(*tree.Get("CLSID\\" + guid + "\\InprocServer32", "")));
  EXPECT_EQ(tree.Get("Filters\\" + guid, ""), "Sink = of \\ all");
  EXPECT_EQ(tree.Get("Filters\\" + guid + "\\0", "Type0"),
            GuidToString(MEDIATYPE_Audio) + " " + GuidToString(GUID_NULL));
  ASSERT_EQ(UnregisterClassTemplate(entry), S_OK);
  ASSERT_EQ(UnregisterClassTemplate(entry), S_OK);
  tree = os::Registry::OfUser().Read();
  EXPECT_TRUE(tree.Subkeys("CLSID").empty());
  EXPECT_TRUE(tree.Subkeys("Filters").empty());
}

TEST_F(RegistrationTest, TellsAnUnwritableOrDamagedRegistry) {
  const CFactoryTemplate entry{u"Sink", &kClass, &MakeSink, nullptr, nullptr};
  setenv("TAVREL_REGISTRY", "/proc/nowhere/registry", 1);
  EXPECT_TRUE(FAILED(RegisterClassTemplate(entry)));
  const std::filesystem::path file = folder_ / "damaged";
  setenv("TAVREL_REGISTRY", file.c_str(), 1);
  os::Registry(file).Update([](os::RegistryTree& tree) { tree.Set("a", "b", "c"); });
  std::filesystem::resize_file(file, 5);
  EXPECT_TRUE(FAILED(RegisterClassTemplate(entry)));
  EXPECT_EQ(std::filesystem::file_size(file), 5U) << "a damaged registry is left as it is";
}

}  // namespace
