// Tests for the text helpers: 1-based positions, binary and text compare,
// Trim of spaces only, Split and Replace.
#include "platform/text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quillo {
namespace {

TEST(InStr, FindsOneBasedPositions) {
  EXPECT_EQ(InStr("hello world", "o"), 5u);
  EXPECT_EQ(InStr("hello world", "hello"), 1u);
  EXPECT_EQ(InStr("hello world", "d"), 11u);
  EXPECT_EQ(InStr("hello world", "z"), 0u);
  EXPECT_EQ(InStr("", "a"), 0u);
}

TEST(InStr, StartsSearchingAtTheGivenPosition) {
  EXPECT_EQ(InStr(6, "hello world", "o"), 8u);
  EXPECT_EQ(InStr(5, "hello world", "o"), 5u);
  EXPECT_EQ(InStr(9, "hello world", "o"), 0u);
  EXPECT_EQ(InStr(20, "hello", "o"), 0u);
}

TEST(InStr, EmptyFindGivesTheStart) {
  EXPECT_EQ(InStr("abc", ""), 1u);
  EXPECT_EQ(InStr(3, "abc", ""), 3u);
  EXPECT_EQ(InStr(4, "abc", ""), 4u);
  EXPECT_EQ(InStr(5, "abc", ""), 0u);
}

TEST(InStr, BinaryCompareIsCaseSensitive) {
  EXPECT_EQ(InStr("Hello", "h"), 0u);
  EXPECT_EQ(InStr("Hello", "H", Compare::kBinary), 1u);
  EXPECT_EQ(InStr("{FirstName}", "{firstname}", Compare::kBinary), 0u);
}

TEST(InStr, TextCompareIgnoresAsciiCase) {
  EXPECT_EQ(InStr("Hello", "h", Compare::kText), 1u);
  EXPECT_EQ(InStr("Dear {FirstName}", "{FIRSTNAME}", Compare::kText), 6u);
  EXPECT_EQ(InStr(3, "abcABC", "A", Compare::kText), 4u);
  EXPECT_EQ(InStr("xyz", "Q", Compare::kText), 0u);
}

TEST(InStr, TreatsBytesAsCharacters) {
  std::string text("a\0b\xc3\xa9z", 6);
  EXPECT_EQ(InStr(text, std::string("\0", 1)), 2u);
  EXPECT_EQ(InStr(text, "z"), 6u);
}

TEST(InStrRev, FindsTheLastOccurrence) {
  EXPECT_EQ(InStrRev("a/b/c", "/"), 4u);
  EXPECT_EQ(InStrRev("abc", "x"), 0u);
  EXPECT_EQ(InStrRev("ABCabc", "A", Compare::kText), 4u);
}

TEST(Mid, TakesCharactersFromAOneBasedStart) {
  EXPECT_EQ(Mid("hello", 2, 3), "ell");
  EXPECT_EQ(Mid("hello", 2), "ello");
  EXPECT_EQ(Mid("hello", 1, 5), "hello");
  EXPECT_EQ(Mid("hello", 4, 10), "lo");
  EXPECT_EQ(Mid("hello", 6), "");
  EXPECT_EQ(Mid("hello", 3, 0), "");
}

TEST(LeftRight, TakeCharactersFromEitherEnd) {
  EXPECT_EQ(Left("hello", 2), "he");
  EXPECT_EQ(Left("hello", 0), "");
  EXPECT_EQ(Left("hello", 9), "hello");
  EXPECT_EQ(Right("hello", 3), "llo");
  EXPECT_EQ(Right("hello", 0), "");
  EXPECT_EQ(Right("hello", 9), "hello");
}

TEST(Trim, RemovesSpacesOnly) {
  EXPECT_EQ(Trim("  a b  "), "a b");
  EXPECT_EQ(Trim("\tab\t"), "\tab\t");
  EXPECT_EQ(Trim(" \tab\t "), "\tab\t");
  EXPECT_EQ(Trim("ab\r\n"), "ab\r\n");
  EXPECT_EQ(Trim("    "), "");
  EXPECT_EQ(Trim(""), "");
  EXPECT_EQ(LTrim("  a  "), "a  ");
  EXPECT_EQ(RTrim("  a  "), "  a");
  EXPECT_EQ(LTrim("\t a"), "\t a");
}

TEST(Case, FoldsAsciiOnly) {
  EXPECT_EQ(UCase("abc\xc3\xa9z"), "ABC\xc3\xa9Z");
  EXPECT_EQ(LCase("ABC"), "abc");
  EXPECT_TRUE(EqualsIgnoreCase("CampaignRecID", "campaignrecid"));
  EXPECT_FALSE(EqualsIgnoreCase("abc", "abd"));
  EXPECT_FALSE(EqualsIgnoreCase("abc", "abcd"));
  EXPECT_TRUE(StartsWithIgnoreCase("Content-Type: x", "content-type"));
  EXPECT_FALSE(StartsWithIgnoreCase("Con", "content"));
}

TEST(Split, CutsAtEveryDelimiter) {
  EXPECT_EQ(Split("a,b,c", ","), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(Split("a,,c,", ","), (std::vector<std::string>{"a", "", "c", ""}));
  EXPECT_EQ(Split("a\r\nb", "\r\n"), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(Split("abc", ","), (std::vector<std::string>{"abc"}));
}

TEST(Split, EmptyTextGivesOneEmptyPiece) {
  EXPECT_EQ(Split("", ","), (std::vector<std::string>{""}));
}

TEST(Split, EmptyDelimiterGivesTheWholeText) {
  EXPECT_EQ(Split("a,b", ""), (std::vector<std::string>{"a,b"}));
}

TEST(Replace, ReplacesEveryOccurrence) {
  EXPECT_EQ(Replace("a-b-c", "-", "+"), "a+b+c");
  EXPECT_EQ(Replace("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(Replace("abcabc", "bc", ""), "aa");
  EXPECT_EQ(Replace("abc", "", "x"), "abc");
  EXPECT_EQ(Replace("abc", "z", "x"), "abc");
}

TEST(Replace, BinaryCompareIsCaseSensitiveAndTextCompareIsNot) {
  EXPECT_EQ(Replace("Name name NAME", "name", "X"), "Name X NAME");
  EXPECT_EQ(Replace("Name name NAME", "name", "X", Compare::kText), "X X X");
}

TEST(Join, PutsTheSeparatorBetweenPieces) {
  EXPECT_EQ(Join({"a", "b", "c"}, ", "), "a, b, c");
  EXPECT_EQ(Join({}, ","), "");
  EXPECT_EQ(Join({"a"}, ","), "a");
}

TEST(PadLeft, PadsButNeverShortens) {
  EXPECT_EQ(PadLeft("7", '0', 3), "007");
  EXPECT_EQ(PadLeft("1234", '0', 3), "1234");
}

}  // namespace
}  // namespace quillo
