// The canonical forms DKIM signs, against the examples of RFC 6376 (3.4.5).
#include "mail/dkim.h"

#include <gtest/gtest.h>

namespace quillo::mail {
namespace {

TEST(DkimCanonicalForm, RelaxedHeadersFoldCaseUnfoldAndSqueezeWhitespace) {
  EXPECT_EQ(RelaxedHeader("A", " X"), "a:X");
  EXPECT_EQ(RelaxedHeader("B ", " Y\t\r\n\tZ  "), "b:Y Z");
  EXPECT_EQ(RelaxedHeader("Subject", "  Hello   there "), "subject:Hello there");
}

TEST(DkimCanonicalForm, RelaxedBodySqueezesWhitespaceAndDropsTrailingEmptyLines) {
  EXPECT_EQ(RelaxedBody(" C \r\nD \t E\r\n\r\n\r\n"), " C\r\nD E\r\n");
  EXPECT_EQ(RelaxedBody(""), "");
  EXPECT_EQ(RelaxedBody("\r\n\r\n"), "");
  EXPECT_EQ(RelaxedBody("no line end"), "no line end\r\n");
}

}  // namespace
}  // namespace quillo::mail
