#include <gtest/gtest.h>

#include "platform/dshow/vfw_errors.h"
#include "tests/support/fake_filters.h"

namespace {

using fakes::Sink;
using fakes::Source;

class PinConnectionTest : public testing::Test {
 protected:
  // Connected pins hold each other, and so their filters, until they are disconnected.
  void TearDown() override {
    sink_->Forget();
    source_->Stop();
    sink_->Stop();
    source_->pin.Disconnect();
    sink_->pin.Disconnect();
    source_.Reset();
    sink_.Reset();
    EXPECT_EQ(CUnknown::ObjectsActive(), 0);
  }

  HRESULT Connect(const AM_MEDIA_TYPE* type = nullptr) {
    return source_->pin.Connect(&sink_->pin, type);
  }

  ComPtr<Source> source_ = Source::Create();
  ComPtr<Sink> sink_ = Sink::Create();
  const CMediaType small_ = fakes::Yv12Type(64, 32);
  const CMediaType large_ = fakes::Yv12Type(640, 360);
};

TEST_F(PinConnectionTest, AgreesOnATypeThatBothAccept) {
  source_->pin.types = {large_, small_};
  CMediaType partial(&MEDIATYPE_Video);
  partial.SetSubtype(&MEDIASUBTYPE_PCM);
  CMediaType open(&MEDIATYPE_Video);
  open.SetSubtype(&MEDIASUBTYPE_YV12);
  struct Row {
    const CMediaType* asked;
    std::vector<CMediaType> offered;  // by the receiving pin, which comes first
    HRESULT accepts, result;
    const CMediaType* agreed;
  };
  for (const Row& row : {Row{nullptr, {small_}, S_OK, S_OK, &small_},
                         {&open, {}, S_OK, S_OK, &large_},
                         {&small_, {}, S_OK, S_OK, &small_},  // a complete type is taken as it is
                         {&partial, {}, S_OK, VFW_E_NO_ACCEPTABLE_TYPES, nullptr},
                         {nullptr, {}, S_FALSE, VFW_E_NO_ACCEPTABLE_TYPES, nullptr},
                         {&large_, {}, E_FAIL, VFW_E_TYPE_NOT_ACCEPTED, nullptr}}) {
    sink_->pin.types = row.offered;
    sink_->pin.accepts = [&](const CMediaType&) { return row.accepts; };
    ASSERT_EQ(Connect(row.asked), row.result);
    CMediaType agreed;
    ComPtr<IPin> peer;
    if (row.agreed != nullptr) {
      EXPECT_EQ(sink_->pin.ConnectionMediaType(&agreed), S_OK);
      EXPECT_TRUE(agreed == *row.agreed);
      EXPECT_EQ(sink_->pin.ConnectedTo(peer.Put()), S_OK);
      EXPECT_EQ(peer.Get(), static_cast<IPin*>(&source_->pin));
      EXPECT_EQ(Connect(row.asked), VFW_E_ALREADY_CONNECTED);
      EXPECT_EQ(source_->pin.Disconnect(), S_OK);
      EXPECT_EQ(sink_->pin.Disconnect(), S_OK);
    }
    EXPECT_EQ(source_->pin.Disconnect(), S_FALSE);
    EXPECT_FALSE(sink_->pin.IsConnected());
    EXPECT_FALSE(source_->pin.HeldInputPin());
    EXPECT_FALSE(sink_->pin.HeldAllocator());
  }
}

TEST_F(PinConnectionTest, UsesThePeersAllocatorAndItsWishesOrBringsOne) {
  source_->pin.types = {large_};
  source_->pin.wanted = {2, 100, 1, 0};
  sink_->pin.requirements = ALLOCATOR_PROPERTIES{6, 10, 16, 0};
  sink_->pin.ownAllocator = CMemAllocator::Create();
  for (const bool refuse : {false, true}) {
    sink_->pin.refuseOwnAllocator = refuse;
    ASSERT_EQ(Connect(), S_OK);
    ALLOCATOR_PROPERTIES agreed{};
    source_->pin.HeldAllocator()->GetProperties(&agreed);
    EXPECT_EQ(agreed.cBuffers, 6);
    EXPECT_GE(agreed.cbBuffer, 100);
    EXPECT_EQ(source_->pin.HeldAllocator() == sink_->pin.ownAllocator, !refuse);
    EXPECT_EQ(source_->pin.HeldAllocator(), sink_->pin.HeldAllocator());
    source_->pin.Disconnect();
    sink_->pin.Disconnect();
  }
  sink_->pin.ownAllocator.Reset();
}

TEST_F(PinConnectionTest, FollowsTheStatesOfItsFilters) {
  source_->pin.types = {large_};
  ASSERT_EQ(Connect(), S_OK);
  const auto buffer = [&] {
    ComPtr<IMediaSample> sample;
    return source_->pin.GetDeliveryBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT);
  };
  EXPECT_EQ(buffer(), VFW_E_NOT_COMMITTED);
  ASSERT_EQ(source_->Pause(), S_OK);
  EXPECT_EQ(buffer(), S_OK);
  const ComPtr<IMediaSample> sample = source_->NewSample(0, 1);
  EXPECT_EQ(source_->Send(sample.Get()), VFW_E_WRONG_STATE);
  ASSERT_EQ(sink_->Pause(), S_OK);
  ASSERT_EQ(source_->Run(0), S_OK);
  EXPECT_EQ(source_->Send(sample.Get()), S_OK);
  sink_->pin.BeginFlush();
  EXPECT_EQ(source_->Send(sample.Get()), S_FALSE);
  sink_->pin.EndFlush();
  EXPECT_EQ(source_->Send(sample.Get()), S_OK);
  EXPECT_EQ(sink_->Count(), 2U);
  EXPECT_EQ(source_->pin.Disconnect(), VFW_E_NOT_STOPPED);
  // A type in the stream that is refused ends it.
  sink_->pin.accepts = [&](const CMediaType& type) { return type == large_ ? S_OK : S_FALSE; };
  CMediaType wrong = small_;
  sample->SetMediaType(&wrong);
  EXPECT_EQ(source_->Send(sample.Get()), VFW_E_INVALIDMEDIATYPE);
  EXPECT_EQ(sink_->pin.endsOfStream, 1);
  sample->SetMediaType(nullptr);
  EXPECT_EQ(source_->Send(sample.Get()), VFW_E_RUNTIME_ERROR);
  sink_->Forget();
  ASSERT_EQ(source_->Stop(), S_OK);
  EXPECT_EQ(buffer(), VFW_E_NOT_COMMITTED);
  ASSERT_EQ(source_->Pause(), S_OK);
  source_->pin.SetReconnectWhenActive(true);
  EXPECT_EQ(source_->pin.Disconnect(), S_OK);
}

TEST_F(PinConnectionTest, EnumeratorsNoticeThatTheirListChanged) {
  source_->pin.types = {large_, small_};
  ComPtr<IEnumMediaTypes> types;
  ASSERT_EQ(source_->pin.EnumMediaTypes(types.Put()), S_OK);
  AM_MEDIA_TYPE* first = nullptr;
  ASSERT_EQ(types->Next(1, &first, nullptr), S_OK);
  const OwnedMediaType owned(first);
  EXPECT_TRUE(CMediaType(*owned) == large_);
  EXPECT_EQ(types->Skip(1), S_OK);
  EXPECT_EQ(types->Skip(1), S_FALSE);
  source_->pin.IncrementTypeVersion();
  AM_MEDIA_TYPE* second = nullptr;
  EXPECT_EQ(types->Next(1, &second, nullptr), VFW_E_ENUM_OUT_OF_SYNC);
  types->Reset();
  ASSERT_EQ(types->Next(1, &second, nullptr), S_OK);
  const OwnedMediaType ownedToo(second);

  ComPtr<IEnumPins> pins;
  ASSERT_EQ(source_->EnumPins(pins.Put()), S_OK);
  source_->IncrementPinVersion();
  ComPtr<IPin> pin;
  EXPECT_EQ(pins->Next(1, pin.Put(), nullptr), VFW_E_ENUM_OUT_OF_SYNC);
  pins->Reset();
  EXPECT_EQ(pins->Next(1, pin.Put(), nullptr), S_OK);
  EXPECT_EQ(pins->Next(1, pin.Put(), nullptr), S_FALSE);
}

}  // namespace
