#include <memory>

#include <gtest/gtest.h>

#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com_ptr.h"
#include "tests/support/fake_filters.h"

namespace {

constexpr IID kFirst{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
constexpr IID kSecond{2, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

class IFirst : public IUnknown {};
class ISecond : public IUnknown {};

class Part final : public CUnknown, public IFirst {
 public:
  DECLARE_IUNKNOWN
  explicit Part(IUnknown* outer) : CUnknown("part", outer) {}
  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override {
    return iid == kFirst ? GetInterface(static_cast<IFirst*>(this), object)
                         : CUnknown::NonDelegatingQueryInterface(iid, object);
  }
};

// Shows its own interface and that of the part that it aggregates.
class Whole final : public CUnknown, public ISecond {
 public:
  DECLARE_IUNKNOWN
  Whole() : CUnknown("whole", nullptr), part_(std::make_unique<Part>(GetOwner())) {}
  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override {
    if (iid == kSecond) {
      return GetInterface(static_cast<ISecond*>(this), object);
    }
    return iid == kFirst ? part_->NonDelegatingQueryInterface(iid, object)
                         : CUnknown::NonDelegatingQueryInterface(iid, object);
  }

 private:
  std::unique_ptr<Part> part_;
};

TEST(Unknown, HandsOutNothingForAnInterfaceThatItLacks) {
  const ComPtr<IUnknown> object(static_cast<IFirst*>(std::make_unique<Part>(nullptr).release()));
  void* other = object.Get();
  EXPECT_EQ(object->QueryInterface(kSecond, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(object->QueryInterface(kFirst, nullptr), E_POINTER);
}

TEST(Unknown, AnAggregatedPartShowsTheIdentityOfTheWhole) {
  const ComPtr<IUnknown> whole(static_cast<ISecond*>(std::make_unique<Whole>().release()));
  ComPtr<IUnknown> first;
  ASSERT_EQ(whole->QueryInterface(kFirst, first.PutVoid()), S_OK);
  ComPtr<IUnknown> second;
  ASSERT_EQ(first->QueryInterface(kSecond, second.PutVoid()), S_OK);  // there and back again
  ComPtr<IUnknown> back;
  EXPECT_EQ(second->QueryInterface(kFirst, back.PutVoid()), S_OK);
  EXPECT_TRUE(IsSameObject(first.Get(), second.Get()));
  EXPECT_TRUE(IsSameObject(first.Get(), whole.Get()));
}

TEST(Unknown, APinCountsWithItsFilter) {
  const LONG before = CUnknown::ObjectsActive();
  ComPtr<IPin> pin;
  {
    const ComPtr<fakes::Source> source = fakes::Source::Create();
    pin = ComPtr<IPin>(&source->pin);
  }
  EXPECT_EQ(CUnknown::ObjectsActive(), before + 2) << "the pin's reference keeps filter and pin";
  PIN_INFO info{};
  ASSERT_EQ(pin->QueryPinInfo(&info), S_OK);
  const auto filter = ComPtr<IBaseFilter>::Adopt(info.pFilter);
  EXPECT_FALSE(IsSameObject(filter.Get(), pin.Get())) << "a pin is an object of its own";
  pin.Reset();
}

}  // namespace
