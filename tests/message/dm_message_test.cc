// Tests of dmMessage: loading and splitting template files, parsing the
// header block into its four lists, the content type, and personalisation.
#include "message/dm_message.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "message/message_test_util.h"
#include "platform/collection.h"
#include "platform/date.h"
#include "platform/file.h"
#include "platform/object.h"
#include "platform/regional.h"
#include "records/dmclients.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

using message_test::ClockGuard;
using message_test::FilledClient;
using message_test::TempFolder;
using message_test::TestData;

// A message loaded from `text` through the file path.
struct Loaded {
  TempFolder folder;
  dmMessage message;
  Loaded(const std::string& text, const std::string& name = "letter.txt") {
    WriteFileBytes(folder.File(name), text);
    message.MessageFileName(folder.File(name));
  }
};

std::vector<std::string> Values(const std::shared_ptr<MessageParmList>& list) {
  std::vector<std::string> out;
  for (const auto& p : *list) out.push_back(p->Name() + "=" + p->Value());
  return out;
}

// --- Defaults and plain properties ---------------------------------------------------

TEST(dmMessage, StartsWithItsDefaults) {
  dmMessage m;
  EXPECT_EQ(m.Subject(), "");
  EXPECT_EQ(m.MessageFileName(), "");
  EXPECT_EQ(m.MessageBody(), "");
  EXPECT_EQ(m.MessageHeader(), "");
  EXPECT_EQ(m.Message(), "");
  EXPECT_EQ(m.ContentType(), "text/plain");
  EXPECT_FALSE(m.Error());
  EXPECT_TRUE(m.OverrideSendingAccount());
}

TEST(dmMessage, ListsExistEmptyBeforeAnyLoad) {
  dmMessage m;
  ASSERT_NE(m.Attachments(), nullptr);
  ASSERT_NE(m.InlineAttachments(), nullptr);
  ASSERT_NE(m.ReplacementVariables(), nullptr);
  ASSERT_NE(m.MessageParameters(), nullptr);
  EXPECT_EQ(m.Attachments()->Count(), 0);
  EXPECT_EQ(m.InlineAttachments()->Count(), 0);
  EXPECT_EQ(m.ReplacementVariables()->Count(), 0);
  EXPECT_EQ(m.MessageParameters()->Count(), 0);
}

TEST(dmMessage, IndexedAccessorsCountFromOneAndRaise9OutOfRange) {
  dmMessage m;
  m.Message(
      "[HEADER]\r\nAttach: a\r\nAttach: b\r\nInline: c, d\r\nReplace: FIRST\r\nX: y\r\n"
      "[/HEADER]\r\n");
  EXPECT_EQ(m.Attachment(1)->Value(), "a");
  EXPECT_EQ(m.Attachment(2)->Value(), "b");
  EXPECT_EQ(m.InlineAttachment(1)->Value(), "c, d");
  EXPECT_EQ(m.ReplacementVariable(1)->Value(), "FIRST");
  EXPECT_EQ(m.MessageParameter(1)->Name(), "X");
  EXPECT_RUNTIME_ERROR(m.Attachment(3), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(m.Attachment(0), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(m.InlineAttachment(2), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(m.ReplacementVariable(2), err::kSubscriptOutOfRange);
  EXPECT_RUNTIME_ERROR(m.MessageParameter(2), err::kSubscriptOutOfRange);
}

TEST(dmMessage, HeaderAndBodySettersStoreWithoutParsing) {
  dmMessage m;
  m.MessageHeader("Replace: FIRST\r\n");
  m.MessageBody("<!--FIRST-->");
  EXPECT_EQ(m.MessageHeader(), "Replace: FIRST\r\n");
  EXPECT_EQ(m.MessageBody(), "<!--FIRST-->");
  EXPECT_EQ(m.ReplacementVariables()->Count(), 0);
}

TEST(dmMessage, ContentTypeAndOverrideAreReadWrite) {
  dmMessage m;
  m.ContentType("text/x-test");
  m.OverrideSendingAccount(false);
  EXPECT_EQ(m.ContentType(), "text/x-test");
  EXPECT_FALSE(m.OverrideSendingAccount());
}

// --- The example template -------------------------------------------------------------

TEST(dmMessage, ExampleTemplateIsParsedIntoItsFourLists) {
  dmMessage m;
  m.MessageFileName(TestData("example_template.txt"));
  ASSERT_FALSE(m.Error());
  EXPECT_EQ(m.MessageHeader(),
            "\r\nReplace: FIRST\r\nAttach: docs\\price list.pdf\r\nInline: img\\logo.gif, logo01"
            "\r\nSUBJECT: Hello\r\nX-PRIORITY: 1\r\n\r\n");
  EXPECT_EQ(m.MessageBody(), "Dear <!--FIRST-->, ...\r\n");
  EXPECT_EQ(Values(m.ReplacementVariables()), std::vector<std::string>{"Replace=FIRST"});
  EXPECT_EQ(Values(m.Attachments()), std::vector<std::string>{"Attach=docs\\price list.pdf"});
  EXPECT_EQ(Values(m.InlineAttachments()),
            std::vector<std::string>{"Inline=img\\logo.gif, logo01"});
  EXPECT_EQ(Values(m.MessageParameters()),
            (std::vector<std::string>{"SUBJECT=Hello", "X-PRIORITY=1"}));
  EXPECT_EQ(m.ContentType(), "text/plain");
  EXPECT_EQ(m.Message(), "");
  // Parameters built by the parser carry no full line.
  EXPECT_EQ(m.MessageParameter(1)->FullString(), "");
}

// --- Loading -----------------------------------------------------------------------------

TEST(dmMessage, LoadMessageFileReadsBytesWholeWithoutParsing) {
  TempFolder folder;
  const std::string bytes("[HEADER]\r\nA: 1\r\n[/HEADER]\r\nbody\0\xff\r\n", 35);
  WriteFileBytes(folder.File("t.txt"), bytes);
  dmMessage m;
  m.Message("[HEADER]\r\nB: 2\r\n[/HEADER]\r\nold");
  m.MessageBody("kept");
  // Setting the name loads; LoadMessageFile alone only reads.
  m.MessageFileName(folder.File("t.txt"));
  m.MessageBody("kept");
  EXPECT_TRUE(m.LoadMessageFile());
  EXPECT_EQ(m.MessageBody(), "kept");
  m.SplitMessage();
  EXPECT_EQ(m.MessageBody(), std::string("body\0\xff\r\n", 8));
}

TEST(dmMessage, MissingFileSetsErrorRaisesNothingAndKeepsHeaderBodyAndContentType) {
  TempFolder folder;
  WriteFileBytes(folder.File("a.htm"), "[HEADER]\r\nReplace: FIRST\r\n[/HEADER]\r\nbody");
  dmMessage m;
  m.MessageFileName(folder.File("a.htm"));
  ASSERT_FALSE(m.Error());
  ASSERT_EQ(m.ContentType(), "text/html");
  m.MessageFileName(folder.File("missing.txt"));
  EXPECT_TRUE(m.Error());
  EXPECT_EQ(m.MessageFileName(), folder.File("missing.txt"));
  EXPECT_EQ(m.MessageHeader(), "\r\nReplace: FIRST\r\n\r\n");
  EXPECT_EQ(m.MessageBody(), "body");
  EXPECT_EQ(m.ContentType(), "text/html");
  // The lists were emptied before the load failed.
  EXPECT_EQ(m.ReplacementVariables()->Count(), 0);
  EXPECT_FALSE(m.LoadMessageFile());
}

TEST(dmMessage, UnreadableFileSetsError) {
  TempFolder folder;
  dmMessage m;
  m.MessageFileName(folder.path());  // A folder cannot be read as a file.
  EXPECT_TRUE(m.Error());
}

TEST(dmMessage, SuccessfulLoadClearsAnEarlierError) {
  TempFolder folder;
  WriteFileBytes(folder.File("ok.txt"), "x");
  dmMessage m;
  m.MessageFileName(folder.File("nope.txt"));
  ASSERT_TRUE(m.Error());
  m.MessageFileName(folder.File("ok.txt"));
  EXPECT_FALSE(m.Error());
  EXPECT_EQ(m.MessageBody(), "x");
}

TEST(dmMessage, BackslashesInTheFileNameAreFolderSeparators) {
  TempFolder folder;
  std::filesystem::create_directory(folder.File("sub"));
  WriteFileBytes(folder.File("sub/letter.htm"), "hello");
  dmMessage m;
  m.MessageFileName(folder.path() + "\\sub\\letter.htm");
  EXPECT_FALSE(m.Error());
  EXPECT_EQ(m.MessageBody(), "hello");
  EXPECT_EQ(m.ContentType(), "text/html");
}

TEST(dmMessage, EmptyFileLoadsWithEmptyHeaderAndBody) {
  Loaded l("");
  EXPECT_FALSE(l.message.Error());
  EXPECT_EQ(l.message.MessageHeader(), "");
  EXPECT_EQ(l.message.MessageBody(), "");
}

TEST(dmMessage, BinaryBytesPassThroughUnchanged) {
  std::string bytes = "[HEADER]\r\nX-Bin: a";
  bytes += std::string("\0\x01\xfe", 3);
  bytes += "\r\n[/HEADER]\r\n";
  std::string body("\xef\xbb\xbf\0\0\xff\x80 end", 11);
  Loaded l(bytes + body);
  EXPECT_FALSE(l.message.Error());
  EXPECT_EQ(l.message.MessageBody(), body);
  EXPECT_EQ(l.message.MessageParameter(1)->Value(), std::string("a\0\x01\xfe", 4));
}

TEST(dmMessage, ReadingMessageAlwaysGivesEmptyText) {
  Loaded l("[HEADER]\r\nA: 1\r\n[/HEADER]\r\nbody");
  EXPECT_EQ(l.message.Message(), "");
  l.message.Message("text");
  EXPECT_EQ(l.message.Message(), "");
}

// --- Content type ----------------------------------------------------------------------

TEST(dmMessage, ContentTypeFollowsTheExtensionIgnoringCase) {
  EXPECT_EQ(Loaded("x", "letter.Htm").message.ContentType(), "text/html");
  EXPECT_EQ(Loaded("x", "letter.HTML").message.ContentType(), "text/html");
  EXPECT_EQ(Loaded("x", "letter.html.txt").message.ContentType(), "text/plain");
  EXPECT_EQ(Loaded("x", "letter.htmx").message.ContentType(), "text/plain");
}

TEST(dmMessage, NameWithoutDotIsItsOwnExtension) {
  EXPECT_EQ(dmMessage::GetFileExtension("letter"), "letter");
  EXPECT_EQ(dmMessage::GetFileExtension("a.b.Htm"), "Htm");
  EXPECT_EQ(dmMessage::GetFileExtension("ends."), "");
  EXPECT_EQ(Loaded("x", "letter").message.ContentType(), "text/plain");
}

TEST(dmMessage, ExtensionIsTakenFromTheWholePath) {
  // A file named "htm" given as a relative path is HTML; the same file given
  // with its folder has no dot in its name, so the whole path is the extension.
  TempFolder folder;
  WriteFileBytes(folder.File("htm"), "x");
  const std::filesystem::path saved = std::filesystem::current_path();
  std::filesystem::current_path(folder.path());
  dmMessage relative;
  relative.MessageFileName("htm");
  std::filesystem::current_path(saved);
  EXPECT_FALSE(relative.Error());
  EXPECT_EQ(relative.ContentType(), "text/html");
  dmMessage full;
  full.MessageFileName(folder.File("htm"));
  EXPECT_EQ(full.ContentType(), "text/plain");
  std::filesystem::create_directory(folder.File("my.htm"));
  WriteFileBytes(folder.File("my.htm/letter"), "x");
  dmMessage dotted_folder;
  dotted_folder.MessageFileName(folder.File("my.htm/letter"));
  EXPECT_EQ(dotted_folder.ContentType(), "text/plain");
}

TEST(dmMessage, SettingMessageLeavesContentTypeAndErrorAlone) {
  TempFolder folder;
  dmMessage m;
  m.MessageFileName(folder.File("missing.htm"));
  m.ContentType("text/html");
  m.Message("[HEADER]\r\nA: 1\r\n[/HEADER]\r\nbody");
  EXPECT_TRUE(m.Error());
  EXPECT_EQ(m.ContentType(), "text/html");
  EXPECT_EQ(m.MessageBody(), "body");
}

// --- Splitting -------------------------------------------------------------------------

TEST(dmMessage, MarkersAreRecognisedIgnoringCase) {
  dmMessage m;
  m.Message("[header]\r\nA: 1\r\n[/Header]\r\nbody");
  EXPECT_EQ(m.MessageHeader(), "\r\nA: 1\r\n\r\n");
  EXPECT_EQ(m.MessageBody(), "body");
  EXPECT_EQ(Values(m.MessageParameters()), std::vector<std::string>{"A=1"});
}

TEST(dmMessage, TextBeforeTheOpeningMarkerIsDropped) {
  dmMessage m;
  m.Message("Note: ignored\r\n[HEADER]\r\nA: 1\r\n[/HEADER]\r\nbody");
  EXPECT_EQ(Values(m.MessageParameters()), std::vector<std::string>{"A=1"});
}

TEST(dmMessage, OpeningMarkerAfterTheClosingOneIsBodyText) {
  dmMessage m;
  m.Message("A: 1\r\n[/HEADER]\r\n[HEADER]\r\nB: 2\r\n");
  EXPECT_EQ(m.MessageBody(), "[HEADER]\r\nB: 2\r\n");
  EXPECT_EQ(Values(m.MessageParameters()), std::vector<std::string>{"A=1"});
}

TEST(dmMessage, ClosingMarkerWithoutOpeningOneMakesEverythingBeforeItHeader) {
  dmMessage m;
  m.Message("A: 1\r\nB: 2\r\n[/HEADER]\r\nbody");
  EXPECT_EQ(m.MessageHeader(), "A: 1\r\nB: 2\r\n\r\n");
  EXPECT_EQ(Values(m.MessageParameters()), (std::vector<std::string>{"A=1", "B=2"}));
}

TEST(dmMessage, WithoutClosingMarkerAllIsBodyEvenWithAnOpeningMarker) {
  dmMessage m;
  m.Message("[HEADER]\r\nA: 1\r\nbody");
  EXPECT_EQ(m.MessageHeader(), "");
  EXPECT_EQ(m.MessageBody(), "[HEADER]\r\nA: 1\r\nbody");
  EXPECT_EQ(m.MessageParameters()->Count(), 0);
}

TEST(dmMessage, OnlyTheFirstOfEachMarkerCounts) {
  dmMessage m;
  m.Message("[HEADER]\r\nA: 1\r\n[HEADER]\r\nB: 2\r\n[/HEADER]\r\nbody [/HEADER]\r\nmore");
  EXPECT_EQ(Values(m.MessageParameters()), (std::vector<std::string>{"A=1", "B=2"}));
  EXPECT_EQ(m.MessageBody(), "body [/HEADER]\r\nmore");
}

TEST(dmMessage, RestOfTheClosingMarkersLineIsDropped) {
  dmMessage m;
  m.Message("[HEADER]\r\nA: 1\r\n[/HEADER] trailing words\r\nbody\r\n");
  EXPECT_EQ(m.MessageBody(), "body\r\n");
}

TEST(dmMessage, BodyIsCutAtItsFirstLineBreakWhereverItIs) {
  dmMessage m;
  m.Message("[HEADER]\r\nA: 1\r\n[/HEADER]first line\r\nsecond\r\nthird");
  EXPECT_EQ(m.MessageBody(), "second\r\nthird");
}

TEST(dmMessage, BodyWithoutLineBreakKeepsTheTextAfterTheMarker) {
  dmMessage m;
  m.Message("[HEADER]\r\nA: 1\r\n[/HEADER]only line");
  EXPECT_EQ(m.MessageBody(), "only line");
}

TEST(dmMessage, HeaderOnOneLineWithoutLineBreaks) {
  dmMessage m;
  m.Message("[HEADER]Replace: FIRST[/HEADER]Dear <!--FIRST-->");
  EXPECT_EQ(m.MessageHeader(), "Replace: FIRST\r\n");
  EXPECT_EQ(Values(m.ReplacementVariables()), std::vector<std::string>{"Replace=FIRST"});
  EXPECT_EQ(m.MessageBody(), "Dear <!--FIRST-->");
}

TEST(dmMessage, LinesEndingInLineFeedAloneAreOneHeaderLine) {
  // Only CR LF ends a line: a file with bare LF has a one-line header whose
  // value runs on over the other lines.
  Loaded l("[HEADER]\nReplace: FIRST\nSUBJECT: x\n[/HEADER]\nbody\n");
  EXPECT_FALSE(l.message.Error());
  EXPECT_EQ(l.message.ReplacementVariables()->Count(), 0);
  ASSERT_EQ(l.message.MessageParameters()->Count(), 1);
  EXPECT_EQ(l.message.MessageParameter(1)->Name(), "\nReplace");
  EXPECT_EQ(l.message.MessageParameter(1)->Value(), "FIRST\nSUBJECT: x\n");
  EXPECT_EQ(l.message.MessageBody(), "\nbody\n");
}

// --- Header lines ------------------------------------------------------------------------

TEST(dmMessage, HeaderLineSplitsAtTheFirstColon) {
  dmMessage m;
  auto p = m.ParseHeaderLine("Key:a:b");
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->Name(), "Key");
  EXPECT_EQ(p->Value(), "a:b");
  EXPECT_EQ(p->FullString(), "");
}

TEST(dmMessage, HeaderLineTrimsSpacesButKeepsTabs) {
  dmMessage m;
  auto p = m.ParseHeaderLine("  Key  :  v  ");
  EXPECT_EQ(p->Name(), "Key");
  EXPECT_EQ(p->Value(), "v");
  auto t = m.ParseHeaderLine("Key:\tv");
  EXPECT_EQ(t->Value(), "\tv");
}

TEST(dmMessage, HeaderLineWithoutColonGivesNothing) {
  dmMessage m;
  EXPECT_EQ(m.ParseHeaderLine("no colon here"), nullptr);
  EXPECT_EQ(m.ParseHeaderLine(""), nullptr);
}

TEST(dmMessage, LinesWithoutColonAndEmptyLinesAreSkipped) {
  dmMessage m;
  m.Message("[HEADER]\r\n\r\njunk\r\n   \r\nA: 1\r\n[/HEADER]\r\n");
  EXPECT_EQ(Values(m.MessageParameters()), std::vector<std::string>{"A=1"});
}

TEST(dmMessage, LinesAreSortedByNameIgnoringCaseAndKeepTheirOrder) {
  dmMessage m;
  m.Message(
      "[HEADER]\r\nreplace: first\r\nATTACH: b.pdf\r\nX-One: 1\r\nInLine: i.gif, c1\r\n"
      "Replace: LAST\r\nattach: a.pdf\r\nX-One: 2\r\nReplaced: no\r\n[/HEADER]\r\n");
  EXPECT_EQ(Values(m.ReplacementVariables()),
            (std::vector<std::string>{"replace=first", "Replace=LAST"}));
  EXPECT_EQ(Values(m.Attachments()), (std::vector<std::string>{"ATTACH=b.pdf", "attach=a.pdf"}));
  EXPECT_EQ(Values(m.InlineAttachments()), std::vector<std::string>{"InLine=i.gif, c1"});
  EXPECT_EQ(Values(m.MessageParameters()),
            (std::vector<std::string>{"X-One=1", "X-One=2", "Replaced=no"}));
}

TEST(dmMessage, SettingMessageTwiceKeepsOneCopyOfEachLine) {
  dmMessage m;
  const std::string text = "[HEADER]\r\nReplace: FIRST\r\nAttach: a\r\nX: 1\r\n[/HEADER]\r\n";
  m.Message(text);
  m.Message(text);
  EXPECT_EQ(m.ReplacementVariables()->Count(), 1);
  EXPECT_EQ(m.Attachments()->Count(), 1);
  EXPECT_EQ(m.MessageParameters()->Count(), 1);
}

TEST(dmMessage, ParseHeaderAppendsSoASecondCallDoublesTheLists) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: FIRST\r\nAttach: a\r\nInline: b, c\r\nX: 1\r\n[/HEADER]\r\n");
  m.ParseHeader();
  EXPECT_EQ(Values(m.ReplacementVariables()),
            (std::vector<std::string>{"Replace=FIRST", "Replace=FIRST"}));
  EXPECT_EQ(m.Attachments()->Count(), 2);
  EXPECT_EQ(m.InlineAttachments()->Count(), 2);
  EXPECT_EQ(m.MessageParameters()->Count(), 2);
}

TEST(dmMessage, ParseHeaderOfBlankHeaderDoesNothing) {
  dmMessage m;
  m.MessageHeader("    ");
  m.ParseHeader();
  EXPECT_EQ(m.MessageParameters()->Count(), 0);
}

TEST(dmMessage, ClearMessageListsEmptiesAllFour) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: FIRST\r\nAttach: a\r\nInline: b, c\r\nX: 1\r\n[/HEADER]\r\n");
  m.ClearMessageLists();
  EXPECT_EQ(m.ReplacementVariables()->Count() + m.Attachments()->Count() +
                m.InlineAttachments()->Count() + m.MessageParameters()->Count(),
            0);
}

TEST(dmMessage, HeaderOfAHundredThousandLinesIsParsed) {
  std::string text = "[HEADER]\r\n";
  for (int i = 0; i < 100000; ++i) text += "X-Line-" + std::to_string(i) + ": v\r\n";
  text += "[/HEADER]\r\nbody";
  Loaded l(text);
  ASSERT_EQ(l.message.MessageParameters()->Count(), 100000);
  EXPECT_EQ(l.message.MessageParameter(100000)->Name(), "X-Line-99999");
  EXPECT_EQ(l.message.MessageBody(), "body");
}

// --- By name -----------------------------------------------------------------------------

TEST(dmMessage, CreatableByNameAndDrivenByName) {
  ObjectPtr m = CreateObject("dmMessage");
  ASSERT_NE(m, nullptr);
  m->Invoke("Message", CallKind::kPut, {Variant("[HEADER]\r\nAttach: a.pdf\r\n[/HEADER]\r\nb")});
  EXPECT_EQ(m->Invoke("message", CallKind::kGet).ToString(), "");
  EXPECT_EQ(m->Invoke("MessageBody", CallKind::kGet).ToString(), "b");
  ObjectPtr list = m->Invoke("Attachments", CallKind::kGet).ToObject();
  EXPECT_EQ(list->Invoke("Count", CallKind::kGet).ToLong(), 1);
  ObjectPtr first = m->Invoke("Attachment", CallKind::kGet, {Variant(std::int32_t{1})}).ToObject();
  EXPECT_EQ(first->Invoke("Value", CallKind::kGet).ToString(), "a.pdf");
  EXPECT_EQ(first->TypeName(), "dmMessageParm");
  // MailAccount is accepted and kept nowhere.
  m->Invoke("MailAccount", CallKind::kPut, {Variant(CreateObject("dmsmtpaccounts"))});
  // Recipient, Client, esmtp, Connection and MailAccount are set only.
  EXPECT_FALSE(m->HasMember("Recipient", CallKind::kGet));
  EXPECT_FALSE(m->HasMember("Client", CallKind::kGet));
  EXPECT_FALSE(m->HasMember("esmtp", CallKind::kGet));
  EXPECT_FALSE(m->HasMember("MailAccount", CallKind::kGet));
  EXPECT_RUNTIME_ERROR(m->Invoke("Error", CallKind::kPut, {Variant(true)}), err::kMemberNotFound);
}

TEST(dmMessage, ParseHeaderLineByNameGivesNothingWithoutColon) {
  ObjectPtr m = CreateObject("dmMessage");
  Variant none = m->Invoke("ParseHeaderLine", CallKind::kMethod, {Variant("abc")});
  EXPECT_EQ(none.ToObject(), nullptr);
}

// --- Personalisation ---------------------------------------------------------------------

const char kAllTagsBody[] =
    "F=<!--FIRST-->|L=<!--LAST-->|M=<!--MIDDLE-->|A1=<!--ADDRESS1-->|A2=<!--ADDRESS2-->|"
    "C=<!--CITY-->|S=<!--STATE-->|CO=<!--COUNTRY-->|P=<!--POSTAL-->|CM=<!--COMPANY-->|"
    "E=<!--EMAIL-->|FN=<!--FULLNAME-->|CSZ=<!--CSZ-->|CSZ1=<!--CSZ1-->|BR=<!--FULLNAMEADDRBR-->|"
    "CRLF=<!--FULLNAMEADDRCRLF-->|SD=<!--SHORTDATE-->|LD=<!--LONGDATE-->|ST=<!--SHORTTIME-->|"
    "LT=<!--LONGTIME-->|DT=<!--DATETIME-->\r\n";

std::string AllTagsTemplate() {
  std::string t = "[HEADER]\r\n";
  for (const char* n :
       {"FIRST",     "LAST",     "MIDDLE",         "ADDRESS1",         "ADDRESS2",  "CITY",
        "STATE",     "COUNTRY",  "POSTAL",         "COMPANY",          "EMAIL",     "FULLNAME",
        "CSZ",       "CSZ1",     "FULLNAMEADDRBR", "FULLNAMEADDRCRLF", "SHORTDATE", "LONGDATE",
        "SHORTTIME", "LONGTIME", "DATETIME"}) {
    t += std::string("Replace: ") + n + "\r\n";
  }
  return t + "[/HEADER]\r\n" + kAllTagsBody;
}

Date FixedNow() { return DateFromParts(2005, 3, 1, 14, 5, 9); }

TEST(dmMessagePersonalisation, EveryFieldFilledGivesThisBodyByteForByte) {
  ClockGuard clock(FixedNow);
  dmMessage m;
  m.Message(AllTagsTemplate());
  m.Client(FilledClient());
  EXPECT_EQ(m.GetReplacedMessageBody(),
            "F=John|L=Smith|M=Q|A1=1 Main St|A2=PO Box 7|C=Springfield|S=IL|CO=USA|P=62701|"
            "CM=Acme|E=john@example.com|FN=John Q Smith|CSZ=Springfield IL 62701|"
            "CSZ1=Springfield IL USA 62701|"
            "BR=John Q Smith<BR>1 Main St<BR>PO Box 7<BR>Springfield IL USA 62701|"
            "CRLF=John Q Smith\r\n1 Main St\r\nPO Box 7\r\nSpringfield IL USA 62701|"
            "SD=3/1/2005|LD=Tuesday, March 1, 2005|ST=14:05|LT=2:05:09 PM|"
            "DT=3/1/2005 2:05:09 PM\r\n");
}

TEST(dmMessagePersonalisation, EveryFieldEmptyGivesThisBodyByteForByte) {
  ClockGuard clock(FixedNow);
  dmMessage m;
  m.Message(AllTagsTemplate());
  m.Client(std::make_shared<dmclients>());
  EXPECT_EQ(m.GetReplacedMessageBody(),
            "F=|L=|M=|A1=|A2=|C=|S=|CO=|P=|CM=|E=|FN=|CSZ=|CSZ1=|BR=|CRLF=|"
            "SD=3/1/2005|LD=Tuesday, March 1, 2005|ST=14:05|LT=2:05:09 PM|"
            "DT=3/1/2005 2:05:09 PM\r\n");
}

TEST(dmMessagePersonalisation, WithoutAClientEveryClientVariableIsEmpty) {
  ClockGuard clock(FixedNow);
  dmMessage m;
  m.Message(AllTagsTemplate());
  EXPECT_EQ(m.GetReplacedMessageBody(),
            "F=|L=|M=|A1=|A2=|C=|S=|CO=|P=|CM=|E=|FN=|CSZ=|CSZ1=|BR=|CRLF=|"
            "SD=3/1/2005|LD=Tuesday, March 1, 2005|ST=14:05|LT=2:05:09 PM|"
            "DT=3/1/2005 2:05:09 PM\r\n");
}

TEST(dmMessagePersonalisation, DatesFollowTheRegionalNamedFormats) {
  ClockGuard clock(FixedNow);
  RegionalSettings saved = Regional();
  Regional().short_date = "dd/mm/yyyy";
  Regional().short_time = "hh.nn";
  dmMessage m;
  m.Message(
      "[HEADER]\r\nReplace: SHORTDATE\r\nReplace: SHORTTIME\r\n[/HEADER]\r\n"
      "<!--SHORTDATE--> <!--SHORTTIME-->");
  const std::string body = m.GetReplacedMessageBody();
  Regional() = saved;
  EXPECT_EQ(body, "01/03/2005 14.05");
}

TEST(dmMessagePersonalisation, EachDateOccurrenceReadsTheClockAfresh) {
  int ticks = 0;
  ClockGuard clock([&] { return DateFromParts(2005, 3, 1, 10, 0, ticks++); });
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: LONGTIME\r\n[/HEADER]\r\n<!--LONGTIME-->,<!--longtime-->");
  EXPECT_EQ(m.GetReplacedMessageBody(), "10:00:00 AM,10:00:01 AM");
}

TEST(dmMessagePersonalisation, UnlistedTagStays) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: LAST\r\n[/HEADER]\r\nDear <!--FIRST--> <!--LAST-->");
  m.Client(FilledClient());
  EXPECT_EQ(m.GetReplacedMessageBody(), "Dear <!--FIRST--> Smith");
}

TEST(dmMessagePersonalisation, TagsAndNamesMatchIgnoringCase) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: First\r\n[/HEADER]\r\nDear <!--first-->, <!--FiRsT-->");
  m.Client(FilledClient());
  EXPECT_EQ(m.GetReplacedMessageBody(), "Dear John, John");
}

TEST(dmMessagePersonalisation, TagAtTheVeryEndAndAdjacentTagsAreReplaced) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: FIRST\r\n[/HEADER]\r\n<!--FIRST--><!--FIRST-->x<!--FIRST-->");
  m.Client(FilledClient());
  EXPECT_EQ(m.GetReplacedMessageBody(), "JohnJohnxJohn");
}

TEST(dmMessagePersonalisation, UnknownVariableIsIgnored) {
  dmMessage m;
  m.Message(
      "[HEADER]\r\nReplace: NICKNAME\r\nReplace: FIRST\r\n[/HEADER]\r\n"
      "<!--NICKNAME--> <!--FIRST-->");
  m.Client(FilledClient());
  EXPECT_EQ(m.GetReplacedMessageBody(), "<!--NICKNAME--> John");
}

TEST(dmMessagePersonalisation, BodyIsUnchangedWithoutReplaceLines) {
  dmMessage m;
  m.Message("[HEADER]\r\nX: 1\r\n[/HEADER]\r\nDear <!--FIRST-->");
  m.Client(FilledClient());
  EXPECT_EQ(m.GetReplacedMessageBody(), "Dear <!--FIRST-->");
}

TEST(dmMessagePersonalisation, SubjectIsNotChangedByGetReplacedMessageBody) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: FIRST\r\n[/HEADER]\r\n<!--FIRST-->");
  m.Client(FilledClient());
  m.Subject("Hi <!--FIRST-->");
  EXPECT_EQ(m.GetReplacedMessageBody(), "John");
  EXPECT_EQ(m.Subject(), "Hi <!--FIRST-->");
}

TEST(dmMessagePersonalisation, ValueContainingItsOwnTagDoesNotLoop) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: FIRST\r\n[/HEADER]\r\n<!--FIRST--> and <!--FIRST-->");
  auto client = FilledClient();
  client->First("<!--FIRST-->!");
  m.Client(client);
  EXPECT_EQ(m.GetReplacedMessageBody(), "<!--FIRST-->! and <!--FIRST-->!");
}

TEST(dmMessagePersonalisation, TagBroughtInByAnEarlierValueIsReplacedByALaterEntry) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: FIRST\r\nReplace: LAST\r\n[/HEADER]\r\n<!--FIRST-->");
  auto client = FilledClient();
  client->First("<!--LAST-->, J.");
  m.Client(client);
  EXPECT_EQ(m.GetReplacedMessageBody(), "Smith, J.");
}

TEST(dmMessagePersonalisation, UnterminatedTagsStay) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: FIRST\r\n[/HEADER]\r\n<!--FIRST <!--FIRST-- <!-- <!--FIRST");
  m.Client(FilledClient());
  EXPECT_EQ(m.GetReplacedMessageBody(), "<!--FIRST <!--FIRST-- <!-- <!--FIRST");
}

TEST(dmMessagePersonalisation, FullNameWithOnlyLastOrOnlyFirst) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: FULLNAME\r\n[/HEADER]\r\n[<!--FULLNAME-->]");
  auto client = std::make_shared<dmclients>();
  client->Last("Smith");
  m.Client(client);
  EXPECT_EQ(m.GetReplacedMessageBody(), "[Smith]");
  client->Last("");
  client->First("John");
  EXPECT_EQ(m.GetReplacedMessageBody(), "[John ]");
}

TEST(dmMessagePersonalisation, AddressBlockLeavesOutBlankAddress) {
  dmMessage m;
  m.Message("[HEADER]\r\nReplace: FULLNAMEADDRBR\r\n[/HEADER]\r\n[<!--FULLNAMEADDRBR-->]");
  auto client = std::make_shared<dmclients>();
  client->First("Ann");
  client->Last("Lee");
  client->Address("    ");
  client->city("Rome");
  m.Client(client);
  EXPECT_EQ(m.GetReplacedMessageBody(), "[Ann Lee<BR>Rome ]");
}

TEST(dmMessagePersonalisation, ReplacementTagAndValueByName) {
  dmMessage m;
  m.Client(FilledClient());
  EXPECT_EQ(dmMessage::GetReplacementTag("csz1"), "<!--CSZ1-->");
  EXPECT_EQ(dmMessage::GetReplacementTag("nope"), "");
  EXPECT_EQ(m.GetReplacementValue("Email"), "john@example.com");
  EXPECT_EQ(m.GetReplacementValue("nope"), "");
  EXPECT_EQ(m.ReplaceVariables("<!--EMAIL-->"), "<!--EMAIL-->");  // Nothing listed.
}

TEST(dmMessagePersonalisation, ByNameHostGetsThePersonalisedBody) {
  ObjectPtr m = CreateObject("dmMessage");
  ObjectPtr client = CreateObject("dmclients");
  client->Invoke("First", CallKind::kPut, {Variant("Ann")});
  m->Invoke("Client", CallKind::kPut, {Variant(client)});
  m->Invoke("Message", CallKind::kPut,
            {Variant("[HEADER]\r\nReplace: FIRST\r\n[/HEADER]\r\nHi <!--FIRST-->")});
  EXPECT_EQ(m->Invoke("GetReplacedMessageBody", CallKind::kMethod).ToString(), "Hi Ann");
}

TEST(dmMessagePersonalisation, RandomTemplatesNeverCrashOrHang) {
  // Bytes drawn from marker and tag fragments, NULs and line breaks; every
  // template is split, parsed and personalised for a filled client.
  const std::vector<std::string> pieces = {"[HEADER]",
                                           "[/header]",
                                           "\r\n",
                                           "\n",
                                           ":",
                                           "Replace",
                                           "Attach",
                                           "Inline",
                                           " FIRST",
                                           "CSZ1",
                                           "FULLNAMEADDRBR",
                                           "<!--",
                                           "-->",
                                           "<!--FIRST-->",
                                           "<!--csz1-->",
                                           "<",
                                           "!",
                                           "-",
                                           std::string("\0", 1),
                                           "\xff",
                                           " ",
                                           "\t",
                                           "x"};
  std::mt19937 rng(4242);
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  ClockGuard clock(FixedNow);
  dmMessage m;
  auto client = FilledClient();
  client->First("<!--FIRST--><!--CSZ1-->");
  m.Client(client);
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    for (size_t i = pick(40); i > 0; --i) text += pieces[pick(pieces.size())];
    m.Message(text);
    m.Subject(text);
    const std::string body = m.GetReplacedMessageBody();
    EXPECT_LE(body.size(), text.size() * 200 + 1000);
  }
}

}  // namespace
}  // namespace quillo
