#include <gtest/gtest.h>

#include "platform/baseclasses/mtype.h"
#include "tests/support/fake_filters.h"

namespace {

TEST(MediaType, IsEqualByTypesAndFormatBytes) {
  const CMediaType a = fakes::Yv12Type(720, 576);
  CMediaType b = a;
  EXPECT_TRUE(a == b);
  EXPECT_NE(a.Format(), b.Format()) << "a copy owns its format block";
  b.lSampleSize = 7;  // says nothing of the format
  EXPECT_TRUE(a == b);
  reinterpret_cast<VIDEOINFOHEADER2*>(b.Format())->bmiHeader.biWidth = 704;
  EXPECT_FALSE(a == b);
  EXPECT_FALSE(a == CMediaType());
  EXPECT_FALSE(a == fakes::Yv12TypeWithPlainHeader(720, 576));
}

TEST(MediaType, MatchesAPartialTypeInWhatThatGives) {
  const CMediaType whole = fakes::Yv12Type(64, 32);
  CMediaType partial;
  EXPECT_TRUE(partial.IsPartiallySpecified());
  EXPECT_TRUE(whole.MatchesPartial(partial));
  partial.SetType(&MEDIATYPE_Video);
  partial.SetSubtype(&MEDIASUBTYPE_YV12);
  EXPECT_TRUE(whole.MatchesPartial(partial));
  partial.SetSubtype(&MEDIASUBTYPE_PCM);
  EXPECT_FALSE(whole.MatchesPartial(partial));
}

}  // namespace
