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

TEST(MediaType, MovesAndAssignsWithoutSharingItsFormat) {
  CMediaType source = fakes::Yv12Type(64, 32);
  const CMediaType kept = source;
  const CMediaType moved = std::move(source);
  EXPECT_TRUE(moved == kept);
  CMediaType assigned = fakes::Yv12TypeWithPlainHeader(16, 16);
  assigned = moved;
  EXPECT_TRUE(assigned == kept);
  CMediaType& self = assigned;
  assigned = self;
  EXPECT_TRUE(assigned == kept);
  assigned = CMediaType();
  EXPECT_FALSE(assigned.IsValid());
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
