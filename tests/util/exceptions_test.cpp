#include "util/exceptions.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "util/text_codecs.h"

namespace {

using testing::StartsWith;
using testing::StrEq;

TEST(ComException, ReadsAProductCodeAsAProductMessage) {
  const COMException mezzanine(MakeHresult(0x80250031));
  EXPECT_THAT(mezzanine.what(),
              StrEq("Tavrel Error 80250031: Input streams are not in mezzanine format. You shall "
                    "configure fallback settings manually."));
  EXPECT_THAT(COMException(MakeHresult(0x80250000)).what(),
              StrEq("Tavrel Error 80250000: No error"));
  EXPECT_THAT(mezzanine.what(), StrEq(mezzanine.what()));
}

TEST(ComException, ReadsOtherCodesWithThePlatformsText) {
  EXPECT_THAT(COMException(E_FAIL).what(), StartsWith("COM Error 80004005: "));
  EXPECT_GT(COMException(E_FAIL).BuildMessage().size(), 0U);
  // A gap in the product's table and a code that nobody knows.
  EXPECT_THAT(COMException(MakeHresult(0x80250009)).what(),
              StrEq("COM Error 80250009: Invalid error code"));
  EXPECT_THAT(COMException(MakeHresult(0x8025FFFF)).what(),
              StrEq("COM Error 8025ffff: Invalid error code"));
}

TEST(StringFormat, GivesTheWholeTextHoweverLong) {
  for (const std::size_t length : {0U, 255U, 256U, 100000U}) {
    const std::string text(length, 'x');
    EXPECT_EQ(qorp::StringFormat("%s %d", text.c_str(), 7), text + " 7") << length;
  }
}

}  // namespace
