#include <cstdlib>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "filter/i_compose_command.h"
#include "platform/graph/filter_registry.h"
#include "platform/os/process.h"
#include "tests/support/temporary_folder.h"

namespace {

using testing::ElementsAre;

// The composer's library as any host loads it.
class LibraryTest : public testing::Test {
 protected:
  template <typename Function>
  Function* Entry(const char* name) {
    Function* const entry = library_->Find<Function>(name);
    EXPECT_NE(entry, nullptr) << name;
    return entry;
  }
  HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** object) {
    return Entry<HRESULT(REFCLSID, REFIID, void**)>("DllGetClassObject")(clsid, iid, object);
  }
  HRESULT CanUnload() { return Entry<HRESULT()>("DllCanUnloadNow")(); }

  std::shared_ptr<os::Module> library_ = os::Module::Load(TAVREL_COMPOSER_LIBRARY);
};

TEST_F(LibraryTest, MakesComposersThroughItsClassFactory) {
  EXPECT_EQ(CanUnload(), S_OK);
  ComPtr<IClassFactory> factory;
  EXPECT_EQ(GetClassObject(CLSID_TavrelComposer, IID_IBaseFilter, factory.PutVoid()),
            E_NOINTERFACE);
  EXPECT_EQ(GetClassObject(CLSID_NULL, IID_IClassFactory, factory.PutVoid()),
            CLASS_E_CLASSNOTAVAILABLE);
  ASSERT_EQ(GetClassObject(CLSID_TavrelComposer, IID_IClassFactory, factory.PutVoid()), S_OK);
  ComPtr<IBaseFilter> filter;
  ASSERT_EQ(factory->CreateInstance(nullptr, IID_IBaseFilter, filter.PutVoid()), S_OK);
  EXPECT_TRUE(filter.As<IComposeCommand>());
  ComPtr<IUnknown> pin;
  EXPECT_EQ(factory->CreateInstance(nullptr, IID_IPin, pin.PutVoid()), E_NOINTERFACE);
  EXPECT_EQ(factory->CreateInstance(filter.Get(), IID_IBaseFilter, pin.PutVoid()), E_NOINTERFACE);
  EXPECT_EQ(CanUnload(), S_FALSE);
  factory.Reset();
  EXPECT_EQ(CanUnload(), S_FALSE) << "a composer is alive";
  filter.Reset();
  EXPECT_EQ(CanUnload(), S_OK);
}

TEST_F(LibraryTest, AnAggregatedComposerShowsItsCommandsToItsOwnerOnly) {
  class Owner final : public IUnknown {
   public:
    HRESULT QueryInterface(REFIID iid, void** object) override {
      if (iid == IID_IUnknown) {
        *object = this;
        AddRef();
        return S_OK;
      }
      return inner->QueryInterface(iid, object);
    }
    ULONG AddRef() override { return ++count; }
    ULONG Release() override { return --count; }
    ULONG count = 1;
    ComPtr<IUnknown> inner;
  };
  Owner owner;
  ComPtr<IClassFactory> factory;
  ASSERT_EQ(GetClassObject(CLSID_TavrelComposer, IID_IClassFactory, factory.PutVoid()), S_OK);
  ASSERT_EQ(factory->CreateInstance(&owner, IID_IUnknown, owner.inner.PutVoid()), S_OK);
  {
    ComPtr<IComposeCommand> command;
    ASSERT_EQ(owner.QueryInterface(IID_IComposeCommand, command.PutVoid()), S_OK);
    EXPECT_EQ(owner.count, 2U) << "the interface counts with the owner";
    ComPtr<IUnknown> identity;
    ASSERT_EQ(command->QueryInterface(IID_IUnknown, identity.PutVoid()), S_OK);
    EXPECT_EQ(identity.Get(), static_cast<IUnknown*>(&owner));
  }
  EXPECT_EQ(owner.count, 1U);
}

TEST_F(LibraryTest, RegistersItselfAndItsKindsOfPins) {
  const TemporaryFolder folder;
  const std::filesystem::path file = folder / "registry";
  setenv("TAVREL_REGISTRY", file.c_str(), 1);
  ASSERT_EQ(Entry<HRESULT()>("DllRegisterServer")(), S_OK);
  const std::vector<RegisteredFilter> filters = ListRegisteredFilters();
  ASSERT_EQ(filters.size(), 1U);
  EXPECT_EQ(filters[0].clsid, CLSID_TavrelComposer);
  EXPECT_EQ(filters[0].name, "Tavrel Composer");
  EXPECT_EQ(filters[0].merit, 0x200000U);
  EXPECT_TRUE(std::filesystem::equivalent(filters[0].library, TAVREL_COMPOSER_LIBRARY));
  std::vector<std::string> pins;
  for (const RegisteredPin& pin : filters[0].pins) {
    pins.push_back(pin.name + (pin.isOutput ? " out" : " in") + (pin.many ? " many" : ""));
  }
  EXPECT_THAT(pins, ElementsAre("InputVideo in many", "InputAudio in many", "InputBG in",
                                "OutputVideo out", "OutputAudio out many"));
  const LoadedFilter loaded = CreateFilter(filters[0].library, filters[0].clsid);
  EXPECT_TRUE(loaded.filter);
  ASSERT_EQ(Entry<HRESULT()>("DllUnregisterServer")(), S_OK);
  EXPECT_TRUE(ListRegisteredFilters().empty());
  WriteWholeFile(file, "damaged");
  EXPECT_TRUE(FAILED(Entry<HRESULT()>("DllRegisterServer")()));
  EXPECT_EQ(ReadWholeFile(file), "damaged") << "it is left as it is";
  setenv("TAVREL_REGISTRY", "/proc/nowhere/registry", 1);
  EXPECT_TRUE(FAILED(Entry<HRESULT()>("DllRegisterServer")()));
  unsetenv("TAVREL_REGISTRY");
}

}  // namespace
