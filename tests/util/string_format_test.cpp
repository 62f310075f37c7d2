#include "util/string_format.h"

#include <gtest/gtest.h>

namespace {

using qorp::StringFormat;

TEST(StringFormat, GivesTheWholeTextHoweverLong) {
  EXPECT_EQ(StringFormat("%d of %s", 3, "seven"), "3 of seven");
  for (const int length : {0, 254, 255, 256, 257, 100000}) {
    const std::string text(static_cast<std::size_t>(length), 'x');
    EXPECT_EQ(StringFormat("%s", text.c_str()), text) << length;
  }
}

TEST(StringFormat, GivesNothingForANullFormat) {
  const char* const none = nullptr;
  EXPECT_EQ(StringFormat(none), "");
}

}  // namespace
