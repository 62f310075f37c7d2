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

TEST_F(RegistrationTest, ReportsAnUnwritableOrDamagedRegistry) {
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
