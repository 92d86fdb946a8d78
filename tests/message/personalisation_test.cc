// Tests of the replacement variables, their composed values and the tag
// replacer, including a comparison with the plain search-and-rebuild loop
// the replacer must behave exactly like.
#include "message/personalisation.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/date.h"
#include "platform/text.h"

namespace quillo {
namespace {

using V = ReplacementVariable;

ClientFields Filled() {
  ClientFields c;
  c.First = "John";
  c.Last = "Smith";
  c.Middle = "Q";
  c.Address = "1 Main St";
  c.PO = "PO Box 7";
  c.city = "Springfield";
  c.state = "IL";
  c.Country = "USA";
  c.zip = "62701";
  c.Company = "Acme";
  c.Email = "john@example.com";
  return c;
}

// The replacement loop written the plain way: search from `start`, rebuild
// the whole text, resume after the inserted value.
std::string PlainReplace(std::string s, const std::vector<V>& variables,
                         const TagReplacer::ValueFunction& value) {
  for (V variable : variables) {
    const std::string tag(ReplacementTag(variable));
    size_t start = 1;
    while (true) {
      const size_t found = InStr(start, s, tag, Compare::kText);
      if (found == 0) break;
      const std::string left = s.substr(0, found - 1);
      const std::string right = s.substr(found - 1 + tag.size());
      std::string v;
      value(variable, v);
      s = left + v + right;
      start = left.size() + v.size() + 1;
      if (start >= s.size()) break;
    }
  }
  return s;
}

TagReplacer::ValueFunction Fixed(std::string first, std::string last = "L") {
  return [first, last](V v, std::string& out) {
    if (v == V::kFirst) out += first;
    if (v == V::kLast) out += last;
  };
}

// --- The variable table ------------------------------------------------------

TEST(ReplacementVariables, NamesAreMatchedIgnoringCase) {
  EXPECT_EQ(FindReplacementVariable("first"), V::kFirst);
  EXPECT_EQ(FindReplacementVariable("FullNameAddrCrLf"), V::kFullNameAddrCrLf);
  EXPECT_EQ(FindReplacementVariable("datetime"), V::kDateTime);
  EXPECT_EQ(FindReplacementVariable("FIRSTNAME"), std::nullopt);
  EXPECT_EQ(FindReplacementVariable(" FIRST"), std::nullopt);
  EXPECT_EQ(FindReplacementVariable(""), std::nullopt);
}

TEST(ReplacementVariables, EveryNameHasItsTag) {
  const char* names[] = {
      "FIRST",     "LAST",     "MIDDLE",         "ADDRESS1",         "ADDRESS2",  "CITY",
      "STATE",     "COUNTRY",  "POSTAL",         "COMPANY",          "EMAIL",     "FULLNAME",
      "CSZ",       "CSZ1",     "FULLNAMEADDRBR", "FULLNAMEADDRCRLF", "SHORTDATE", "LONGDATE",
      "SHORTTIME", "LONGTIME", "DATETIME"};
  for (const char* name : names) {
    auto variable = FindReplacementVariable(name);
    ASSERT_TRUE(variable.has_value()) << name;
    EXPECT_EQ(ReplacementTag(*variable), std::string("<!--") + name + "-->");
  }
}

TEST(ReplacementVariables, EachClientVariableReadsItsField) {
  const ClientFields c = Filled();
  auto value = [&](V v) {
    std::string out;
    AppendClientValue(v, c, out);
    return out;
  };
  EXPECT_EQ(value(V::kFirst), "John");
  EXPECT_EQ(value(V::kLast), "Smith");
  EXPECT_EQ(value(V::kMiddle), "Q");
  EXPECT_EQ(value(V::kAddress1), "1 Main St");
  EXPECT_EQ(value(V::kAddress2), "PO Box 7");
  EXPECT_EQ(value(V::kCity), "Springfield");
  EXPECT_EQ(value(V::kState), "IL");
  EXPECT_EQ(value(V::kCountry), "USA");
  EXPECT_EQ(value(V::kPostal), "62701");
  EXPECT_EQ(value(V::kCompany), "Acme");
  EXPECT_EQ(value(V::kEmail), "john@example.com");
}

// --- Composed values ------------------------------------------------------------

TEST(NameLine, JoinsFirstMiddleAndLastWithSingleSpaces) {
  ClientFields c;
  c.First = "John";
  c.Last = "Smith";
  EXPECT_EQ(NameLine(c), "John Smith");
  c.Middle = "Q";
  EXPECT_EQ(NameLine(c), "John Q Smith");
}

TEST(NameLine, LastAloneHasNoLeadingSpace) {
  ClientFields c;
  c.Last = "Smith";
  EXPECT_EQ(NameLine(c), "Smith");
}

TEST(NameLine, FirstAloneKeepsOneTrailingSpace) {
  ClientFields c;
  c.First = "John";
  EXPECT_EQ(NameLine(c), "John ");
}

TEST(NameLine, LeadingSpacesOfEachFieldAreDropped) {
  ClientFields c;
  c.First = "  John";
  c.Middle = "   ";
  c.Last = "  Smith ";
  EXPECT_EQ(NameLine(c), "John Smith ");
}

TEST(NameLine, AllEmptyGivesEmpty) { EXPECT_EQ(NameLine(ClientFields{}), ""); }

TEST(CszLine, HasNoCommasAndKeepsATrailingSpaceWhenZipIsEmpty) {
  ClientFields c = Filled();
  EXPECT_EQ(CszLine(c), "Springfield IL 62701");
  c.zip = "";
  EXPECT_EQ(CszLine(c), "Springfield IL ");
  EXPECT_EQ(CszLine(ClientFields{}), "");
}

TEST(Csz1Line, AddsTheCountryBeforeTheZip) {
  ClientFields c = Filled();
  EXPECT_EQ(Csz1Line(c), "Springfield IL USA 62701");
  c.state = "";
  c.zip = "";
  EXPECT_EQ(Csz1Line(c), "Springfield USA ");
}

TEST(AddressBlock, JoinsTheIncludedPartsWithTheSeparator) {
  const ClientFields c = Filled();
  EXPECT_EQ(AddressBlock(c, "<BR>"),
            "John Q Smith<BR>1 Main St<BR>PO Box 7<BR>Springfield IL USA 62701");
  EXPECT_EQ(AddressBlock(c, "\r\n"),
            "John Q Smith\r\n1 Main St\r\nPO Box 7\r\nSpringfield IL USA 62701");
}

TEST(AddressBlock, LeavesOutBlankPartsAndKeepsOthersUntrimmed) {
  ClientFields c;
  c.First = "Ann";
  c.Address = "   ";
  c.PO = " Box 1 ";
  EXPECT_EQ(AddressBlock(c, "<BR>"), "Ann <BR> Box 1 ");
}

TEST(AddressBlock, AllPartsEmptyGivesEmpty) {
  EXPECT_EQ(AddressBlock(ClientFields{}, "<BR>"), "");
  ClientFields blanks;
  blanks.Address = "  ";
  blanks.PO = " ";
  EXPECT_EQ(AddressBlock(blanks, "\r\n"), "");
}

TEST(AddressBlock, SinglePartHasNoSeparator) {
  ClientFields c;
  c.city = "Paris";
  EXPECT_EQ(AddressBlock(c, "<BR>"), "Paris ");
}

TEST(DateValues, UseTheFiveNamedFormats) {
  const Date when = DateFromParts(2005, 3, 1, 14, 5, 9);
  auto value = [&](V v) {
    std::string out;
    AppendDateValue(v, when, out);
    return out;
  };
  EXPECT_EQ(value(V::kShortDate), "3/1/2005");
  EXPECT_EQ(value(V::kLongDate), "Tuesday, March 1, 2005");
  EXPECT_EQ(value(V::kShortTime), "14:05");
  EXPECT_EQ(value(V::kLongTime), "2:05:09 PM");
  EXPECT_EQ(value(V::kDateTime), "3/1/2005 2:05:09 PM");
}

// --- The replacer -------------------------------------------------------------

TEST(TagReplacer, ReplacesEveryOccurrenceIgnoringCase) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst};
  EXPECT_EQ(r.Replace("Dear <!--first-->, <!--FiRsT-->!", list, Fixed("Ann")), "Dear Ann, Ann!");
}

TEST(TagReplacer, TagAtTheVeryEndIsReplaced) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst};
  EXPECT_EQ(r.Replace("Hi <!--FIRST-->", list, Fixed("Ann")), "Hi Ann");
  EXPECT_EQ(r.Replace("<!--FIRST-->", list, Fixed("Ann")), "Ann");
}

TEST(TagReplacer, AdjacentTagsAreBothReplaced) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst};
  EXPECT_EQ(r.Replace("<!--FIRST--><!--FIRST-->", list, Fixed("Ann")), "AnnAnn");
}

TEST(TagReplacer, UnlistedTagsStay) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst};
  EXPECT_EQ(r.Replace("<!--LAST--> <!--FIRST-->", list, Fixed("Ann")), "<!--LAST--> Ann");
  EXPECT_EQ(r.Replace("<!--LAST-->", {}, Fixed("Ann")), "<!--LAST-->");
}

TEST(TagReplacer, ValueContainingItsOwnTagDoesNotLoop) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst};
  EXPECT_EQ(r.Replace("a<!--FIRST-->b<!--FIRST-->c", list, Fixed("x<!--FIRST-->y")),
            "ax<!--FIRST-->ybx<!--FIRST-->yc");
}

TEST(TagReplacer, LaterVariableSeesTagsBroughtInByEarlierValues) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst, V::kLast};
  EXPECT_EQ(r.Replace("<!--FIRST-->", list, Fixed("[<!--LAST-->]", "Smith")), "[Smith]");
}

TEST(TagReplacer, EarlierVariableDoesNotSeeTagsBroughtInLater) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst, V::kLast};
  EXPECT_EQ(r.Replace("<!--LAST-->", list, Fixed("Ann", "<!--FIRST-->")), "<!--FIRST-->");
}

TEST(TagReplacer, RepeatedVariableDoesNoFurtherWork) {
  TagReplacer r;
  int calls = 0;
  const std::vector<V> list = {V::kFirst, V::kFirst};
  const std::string out = r.Replace("<!--FIRST--> <!--FIRST-->", list, [&](V, std::string& s) {
    ++calls;
    s += "Ann";
  });
  EXPECT_EQ(out, "Ann Ann");
  EXPECT_EQ(calls, 2);
}

TEST(TagReplacer, AFreshValueIsAskedForEveryOccurrenceInOrder) {
  TagReplacer r;
  int n = 0;
  const std::vector<V> list = {V::kLast, V::kFirst};
// GCC 12 at -O3 reports -Wrestrict inside libstdc++ for "x" + std::string&&
// where no overlap is possible (GCC bug 105329).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wrestrict"
  const std::string out = r.Replace(
      "<!--FIRST--><!--LAST--><!--FIRST--><!--LAST-->", list,
      [&](V v, std::string& s) { s += (v == V::kFirst ? "F" : "L") + std::to_string(++n); });
#pragma GCC diagnostic pop
  EXPECT_EQ(out, "F3L1F4L2");
}

TEST(TagReplacer, TagSplitAcrossAValueJoinIsFoundByALaterVariable) {
  TagReplacer r;
  // FIRST's value completes the marker "<!--" in front of "LAST-->".
  const std::vector<V> list = {V::kFirst, V::kLast};
  EXPECT_EQ(r.Replace("<!<!--FIRST-->LAST-->", list, Fixed("--", "Smith")), "Smith");
  // An empty value joins "<!" and "--LAST-->".
  EXPECT_EQ(r.Replace("<!<!--FIRST-->--LAST-->", list, Fixed("", "Smith")), "Smith");
}

TEST(TagReplacer, TagCompletedBehindAnEarlierMarkerIsFound) {
  TagReplacer r;
  // Removing "<!--FIRST-->" leaves "<!--LAST-->" behind the first marker.
  const std::vector<V> list = {V::kFirst, V::kLast};
  EXPECT_EQ(r.Replace("<!--<!--FIRST-->LAST-->", list, Fixed("", "Smith")), "Smith");
  EXPECT_EQ(r.Replace("<!--<!--FIRST-->-->", list, Fixed("LAST", "Smith")), "Smith");
}

TEST(TagReplacer, ThrowingValueBecomesEmptyAndReplacementGoesOn) {
  TagReplacer r;
  int n = 0;
  const std::vector<V> list = {V::kFirst};
  const std::string out = r.Replace("<!--FIRST-->,<!--FIRST-->", list, [&](V, std::string& s) {
    s += "partial";
    if (++n == 1) throw std::runtime_error("unreadable");
  });
  EXPECT_EQ(out, ",partial");
}

TEST(TagReplacer, UnterminatedTagsAndBareMarkersStay) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst};
  EXPECT_EQ(r.Replace("<!--FIRST <!--FIRST- <!-- <!--FIRST-->", list, Fixed("A")),
            "<!--FIRST <!--FIRST- <!-- A");
  EXPECT_EQ(r.Replace("<!--FIRST--", list, Fixed("A")), "<!--FIRST--");
}

TEST(TagReplacer, BinaryBytesPassThrough) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst};
  const std::string text("\0\xff<!--FIRST-->\0\x80", 16);
  EXPECT_EQ(r.Replace(text, list, Fixed("A")), std::string("\0\xff"
                                                           "A\0\x80",
                                                           5));
}

TEST(TagReplacer, ReusedReplacerStartsAfresh) {
  TagReplacer r;
  const std::vector<V> list = {V::kFirst};
  EXPECT_EQ(r.Replace("<!--FIRST-->", list, Fixed("Ann")), "Ann");
  EXPECT_EQ(r.Replace("x", list, Fixed("Ann")), "x");
  EXPECT_EQ(r.Replace("", list, Fixed("Ann")), "");
}

TEST(TagReplacer, AgreesWithThePlainLoopOnRandomLetters) {
  // Mostly ordinary values, so that most texts are done in one pass and some
  // switch to the step-by-step way part of the way through.
  const std::vector<std::string> fragments = {
      "<!--FIRST-->", "<!--last-->", "<!--CSZ-->", "<!--Csz1-->", "<!--X-->",
      "text ",        "<p>",         "-",          "!",           "<"};
  const std::vector<std::string> value_pieces = {"Ann", "Lee", "x y", "",
                                                 "-",   "!",   "<",   "<!--LAST-->"};
  const std::vector<V> all = {V::kFirst, V::kLast, V::kCsz, V::kCsz1};
  std::mt19937 rng(777);
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  TagReplacer r;
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (size_t i = pick(12); i > 0; --i) text += fragments[pick(fragments.size())];
    std::vector<V> list;
    for (size_t i = 1 + pick(4); i > 0; --i) list.push_back(all[pick(all.size())]);
    std::vector<std::string> values;
    for (int i = 0; i < 4; ++i) {
      values.push_back(pick(4) == 0 ? value_pieces[pick(value_pieces.size())]
                                    : value_pieces[pick(3)]);
    }
    int calls_fast = 0;
    int calls_plain = 0;
    auto value_with = [&](int& calls) {
      return [&](V v, std::string& out) {
        out += values[static_cast<size_t>(v == V::kFirst  ? 0
                                          : v == V::kLast ? 1
                                          : v == V::kCsz  ? 2
                                                          : 3)];
        if (++calls % 2 == 0) out += "2";
      };
    };
    const std::string expected = PlainReplace(text, list, value_with(calls_plain));
    ASSERT_EQ(r.Replace(text, list, value_with(calls_fast)), expected) << "text: " << text;
    ASSERT_EQ(calls_fast, calls_plain);
  }
}

TEST(TagReplacer, AgreesWithThePlainLoopOnRandomTexts) {
  // Texts and values built from fragments of tags, so that values bring in
  // tags, joins form markers and tags overlap in every way.
  const std::vector<std::string> fragments = {"<!--",
                                              "-->",
                                              "<!",
                                              "--",
                                              "-",
                                              "<",
                                              "!",
                                              "FIRST",
                                              "first",
                                              "LAST",
                                              "CSZ",
                                              "CSZ1",
                                              "<!--FIRST-->",
                                              "<!--last-->",
                                              "<!--CSZ-->",
                                              "<!--Csz1-->",
                                              "a",
                                              "b",
                                              " ",
                                              "\r\n"};
  const std::vector<V> all = {V::kFirst, V::kLast, V::kCsz, V::kCsz1};
  std::mt19937 rng(12345);
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  auto make = [&](size_t max_pieces) {
    std::string s;
    const size_t n = pick(max_pieces + 1);
    for (size_t i = 0; i < n; ++i) s += fragments[pick(fragments.size())];
    return s;
  };
  TagReplacer r;
  for (int round = 0; round < 20000; ++round) {
    const std::string text = make(14);
    std::vector<V> list;
    for (size_t i = pick(5); i > 0; --i) list.push_back(all[pick(all.size())]);
    // Values depend on the variable and on a counter, so the order of the
    // calls shows in the result.
    std::vector<std::string> values;
    for (int i = 0; i < 4; ++i) values.push_back(make(3));
    int fast_calls = 0;
    int plain_calls = 0;
    auto value_with = [&](int& calls) {
      return [&](V v, std::string& out) {
        out += values[static_cast<size_t>(v == V::kFirst  ? 0
                                          : v == V::kLast ? 1
                                          : v == V::kCsz  ? 2
                                                          : 3)];
        if (++calls % 3 == 0) out += "#";
      };
    };
    const std::string expected = PlainReplace(text, list, value_with(plain_calls));
    const std::string actual = r.Replace(text, list, value_with(fast_calls));
    ASSERT_EQ(actual, expected) << "text: " << text << " round " << round;
    ASSERT_EQ(fast_calls, plain_calls);
  }
}

}  // namespace
}  // namespace quillo
