#include "platform/dshow/vfw_errors.h"
#include "tests/support/composer_fixture.h"

namespace {

class OutputPinTest : public ComposerFixture {
 protected:
  CBaseOutputPin& Pin() { return *static_cast<CBaseOutputPin*>(composer_->GetPin(1)); }
  VIDEOINFOHEADER2 Offered(CMediaType* type) {
    EXPECT_EQ(Pin().GetMediaType(0, type), S_OK);
    EXPECT_EQ(type->formattype, FORMAT_VideoInfo2);
    EXPECT_EQ(type->cbFormat, sizeof(VIDEOINFOHEADER2));
    VIDEOINFOHEADER2 format{};
    std::memcpy(&format, type->pbFormat, sizeof(format));
    return format;
  }
};

TEST_F(OutputPinTest, TurnsAPlainHeaderIntoTheLargerOne) {
  Make(0);
  EXPECT_TRUE(FAILED(Pin().Connect(&sink_->pin, nullptr))) << "there is no background";
  ConnectBackground(fakes::Yv12TypeWithPlainHeader(720, 576, 333667));
  CMediaType type;
  const VIDEOINFOHEADER2 format = Offered(&type);
  EXPECT_EQ(format.AvgTimePerFrame, 333667);
  EXPECT_EQ(format.dwPictAspectRatioX, 4U);
  EXPECT_EQ(format.dwPictAspectRatioY, 3U);
  EXPECT_EQ(format.bmiHeader.biWidth, 720);
  EXPECT_EQ(format.bmiHeader.biPlanes, 3);
  EXPECT_EQ(format.bmiHeader.biCompression, 0x32315659U);
  EXPECT_EQ(format.bmiHeader.biSizeImage, 622080U);
  EXPECT_EQ(type.GetSampleSize(), 622080U);
}

TEST_F(OutputPinTest, AnnouncesSizesInWrappedArithmeticAndAlwaysFixed) {
  Make(0);
  struct Size {
    LONG width;
    LONG height;
    LONG bytes;
  };
  for (const Size& size :
       {Size{0, 576, 0}, {-5, 3, -22}, {40000, 40000, 252516352}, {65536, 32768, -1073741824}}) {
    ConnectBackground(fakes::Yv12TypeWithPlainHeader(size.width, size.height));
    CMediaType type;
    const VIDEOINFOHEADER2 format = Offered(&type);
    EXPECT_EQ(format.bmiHeader.biSizeImage, static_cast<DWORD>(size.bytes));
    EXPECT_NE(type.bFixedSizeSamples, FALSE);
    EXPECT_EQ(type.lSampleSize, static_cast<ULONG>(size.bytes));
    composer_->Configure(0, &logger_, size.width, size.height, 4, 3, 0, {25, 1});
    ALLOCATOR_PROPERTIES request{};
    Pin().DecideBufferSize(CMemAllocator::Create().Get(), &request);
    EXPECT_EQ(request.cbBuffer, size.bytes);
    graph_->Disconnect(&background_->pin);
    graph_->Disconnect(composer_->GetPin(0));
  }
}

TEST_F(OutputPinTest, OffersNothingForABackgroundWithoutAWholeFormatBlock) {
  Make(0);
  for (const GUID& format : {FORMAT_VideoInfo, FORMAT_VideoInfo2}) {
    for (const ULONG length : {0U, 87U}) {
      CMediaType background = fakes::TypeOf(MEDIATYPE_Video, MEDIASUBTYPE_YV12);
      background.SetFormatType(&format);
      std::fill_n(background.AllocFormatBuffer(length), length, BYTE{1});
      ConnectBackground(background);
      CMediaType type;
      EXPECT_EQ(Pin().GetMediaType(0, &type), VFW_E_INVALIDMEDIATYPE);
      EXPECT_TRUE(FAILED(Pin().Connect(&sink_->pin, nullptr)));
      graph_->Disconnect(&background_->pin);
      graph_->Disconnect(composer_->GetPin(0));
    }
  }
}

TEST_F(OutputPinTest, KeepsALargerHeaderButForTheAspect) {
  Make(0);
  CMediaType background = fakes::Yv12Type(kWidth, kHeight);
  auto* const header = reinterpret_cast<VIDEOINFOHEADER2*>(background.pbFormat);
  header->dwInterlaceFlags = 0x85;
  header->dwPictAspectRatioX = 1;
  ConnectBackground(background);
  CMediaType type;
  const VIDEOINFOHEADER2 format = Offered(&type);
  header->dwPictAspectRatioX = 4;
  header->dwPictAspectRatioY = 3;
  EXPECT_EQ(format.dwInterlaceFlags, 0x85U);
  EXPECT_TRUE(type == background);
}

TEST_F(OutputPinTest, AsksForThirtyBuffersOrAsManyAsThePeerWants) {
  Make(0);
  for (const auto& [wanted, agreed] : {std::pair<LONG, LONG>{4, 30}, {40, 40}}) {
    const ComPtr<IMemAllocator> allocator = CMemAllocator::Create();
    ALLOCATOR_PROPERTIES request{wanted, 1, 16, 8};
    ASSERT_EQ(Pin().DecideBufferSize(allocator.Get(), &request), S_OK);
    ALLOCATOR_PROPERTIES actual{};
    allocator->GetProperties(&actual);
    EXPECT_EQ(actual.cBuffers, agreed);
    EXPECT_EQ(actual.cbAlign, 1);
  }
  const auto stingy = fakes::StingyAllocator::Create(29);
  ALLOCATOR_PROPERTIES request{};
  EXPECT_EQ(Pin().DecideBufferSize(stingy.Get(), &request), E_FAIL);
}

}  // namespace
