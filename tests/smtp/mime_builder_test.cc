// Tests of the SMTP client's message assembly: the single-part and multipart
// texts byte for byte, defaults written back, the generated boundary, custom
// headers, the raw-message list and the raw-message file.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "codec/base64.h"
#include "platform/error.h"
#include "platform/file.h"
#include "smtp/ard_esmtp.h"
#include "support/error_matchers.h"
#include "support/temp_folder.h"

namespace quillo {
namespace {

using testing::TempFolder;

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(SinglePartMessageTest, DefaultsGiveTextPlainAnd7bit) {
  ardESMTP smtp;
  smtp.Sender("me@example.com");
  smtp.MsgSubject("Hello");
  smtp.MsgBody("Line one\r\nLine two");
  smtp.BuildSinglePartMessage("you@example.org");
  EXPECT_EQ(smtp.MessageBuffer(),
            "From: <me@example.com>\r\n"
            "To: you@example.org\r\n"
            "Subject: Hello\r\n"
            "MIME-Version: 1.0\r\n"
            "Content-type: text/plain\r\n"
            "Content-Transfer-Encoding: 7bit\r\n"
            "X-Mailer: ardESMTP v2.0\r\n"
            "X-MimeOLE: ardESMTP v2.0\r\n"
            "\r\n"
            "Line one\r\nLine two"
            "\r\n.\r\n");
}

TEST(SinglePartMessageTest, EveryOptionalHeaderInOrder) {
  ardESMTP smtp;
  smtp.Sender("me@example.com");
  smtp.SenderFriendly("Me Myself");
  smtp.MsgSubject("");
  smtp.MsgReplyTo("reply@example.com");
  smtp.MsgContentType("text/html");
  smtp.MsgContentEncoding("8bit");
  smtp.Importance("High");
  smtp.XPriority(3);
  smtp.Sensitivity("Personal");
  smtp.DispositionNotificationTo("me@example.com");
  smtp.XMailer("");
  smtp.XMimeOLE("Mime 1");
  smtp.AddCustomHeader("X-Campaign: 42");
  smtp.AddCustomHeader("List-Unsubscribe: <mailto:u@example.com>");
  smtp.MsgBody("<p>Hi</p>");
  smtp.BuildSinglePartMessage("you@example.org");
  EXPECT_EQ(smtp.MessageBuffer(),
            "From: \"Me Myself\" <me@example.com>\r\n"
            "To: you@example.org\r\n"
            "Subject: \r\n"
            "Reply-To: reply@example.com\r\n"
            "MIME-Version: 1.0\r\n"
            "Content-type: text/html\r\n"
            "Content-Transfer-Encoding: 8bit\r\n"
            "Importance: High\r\n"
            "X-Priority: 3\r\n"
            "Sensitivity: Personal\r\n"
            "Disposition-Notification-To: me@example.com\r\n"
            "X-Mailer: \r\n"
            "X-MimeOLE: Mime 1\r\n"
            "X-Campaign: 42\r\n"
            "List-Unsubscribe: <mailto:u@example.com>\r\n"
            "\r\n"
            "<p>Hi</p>\r\n.\r\n");
}

TEST(SinglePartMessageTest, BlankSenderFriendlyGivesBareAngleAddress) {
  ardESMTP smtp;
  smtp.Sender("s@x");
  smtp.SenderFriendly("   ");
  smtp.BuildSinglePartMessage("r@x");
  EXPECT_EQ(smtp.MessageBuffer().rfind("From: <s@x>\r\nTo: r@x\r\n", 0), 0u);
}

TEST(SinglePartMessageTest, ZeroOrNegativePriorityWritesNoHeader) {
  ardESMTP smtp;
  smtp.XPriority(0);
  smtp.BuildSinglePartMessage("r@x");
  EXPECT_EQ(smtp.MessageBuffer().find("X-Priority"), std::string::npos);
  smtp.XPriority(-1);
  smtp.BuildSinglePartMessage("r@x");
  EXPECT_EQ(smtp.MessageBuffer().find("X-Priority"), std::string::npos);
}

TEST(SinglePartMessageTest, BlankDefaultsAreWrittenBackIntoTheProperties) {
  ardESMTP smtp;
  smtp.MsgMimeVersion(" ");
  smtp.MsgContentType("");
  smtp.MsgContentEncoding("  ");
  smtp.BuildSinglePartMessage("r@x");
  EXPECT_EQ(smtp.MsgMimeVersion(), "1.0");
  EXPECT_EQ(smtp.MsgContentType(), "text/plain");
  EXPECT_EQ(smtp.MsgContentEncoding(), "7bit");
}

TEST(SinglePartMessageTest, ValuesAreWrittenUntrimmed) {
  ardESMTP smtp;
  smtp.MsgReplyTo(" r@x ");
  smtp.BuildSinglePartMessage("to@x");
  EXPECT_NE(smtp.MessageBuffer().find("\r\nReply-To:  r@x \r\n"), std::string::npos);
}

TEST(SinglePartMessageTest, LoneDotLineInTheBodyIsNotDoubled) {
  ardESMTP smtp;
  smtp.MsgBody("a\r\n.\r\nb");
  smtp.BuildSinglePartMessage("to@x");
  EXPECT_NE(smtp.MessageBuffer().find("\r\n\r\na\r\n.\r\nb\r\n.\r\n"), std::string::npos);
}

TEST(MultipartMessageTest, TextPartThenAttachmentThenClosingDelimiter) {
  TempFolder folder;
  ardESMTP smtp;
  smtp.Sender("me@example.com");
  smtp.MsgSubject("Report");
  smtp.MsgBody("See attached.");
  smtp.XPriority(1);
  smtp.AddCustomHeader("X-Part: text");
  smtp.Boundary("---B");
  smtp.AddAttachment(folder.Write("r.txt", "abc"));
  smtp.Send();  // No recipients: builds nothing and connects nowhere.
  smtp.BuildMultipartMessage("you@example.org");
  EXPECT_EQ(smtp.MessageBuffer(),
            "From: <me@example.com>\r\n"
            "To: you@example.org\r\n"
            "Subject: Report\r\n"
            "MIME-Version: 1.0\r\n"
            "X-Priority: 1\r\n"
            "X-Mailer: ardESMTP v2.0\r\n"
            "X-MimeOLE: ardESMTP v2.0\r\n"
            "Content-Type: multipart/mixed;\r\n"
            "        boundary=\"---B\"\r\n"
            "Content-Transfer-Encoding: 7bit\r\n"
            "\r\n"
            "This is a MIME Encoded Message\r\n"
            "\r\n"
            "-----B\r\n"
            "Content-type: text/plain\r\n"
            "Content-Transfer-Encoding: 7bit\r\n"
            "X-Part: text\r\n"
            "\r\n"
            "See attached.\r\n"
            "\r\n"
            "-----B\r\n"
            "Content-Type: text/plain;\r\n"
            "     name=\"r.txt\"\r\n"
            "Content-Transfer-Encoding: base64\r\n"
            "Content-Disposition: attachment;\r\n"
            "     filename=\"r.txt\"\r\n"
            "\r\n"
            "YWJj\r\n"
            "\r\n"
            "-----B--\r\n"
            "\r\n.\r\n");
}

TEST(MultipartMessageTest, GeneratedBoundaryIsThreeHyphensAndTwiceOneDigest) {
  TempFolder folder;
  ardESMTP smtp;
  smtp.AddAttachment(folder.Write("a.txt", "a"));
  smtp.AddRecipient("one@x");
  smtp.AddRecipient("two@x");
  smtp.CreateRawMessages();
  const std::string boundary = smtp.Boundary();
  std::smatch m;
  ASSERT_TRUE(std::regex_match(boundary, m, std::regex("---([0-9A-F]{32})([0-9A-F]{32})")));
  EXPECT_EQ(m[1].str(), m[2].str());
  const std::string marker = "boundary=\"" + boundary + "\"";
  EXPECT_NE(smtp.RawMessage(1).find(marker), std::string::npos);
  EXPECT_NE(smtp.RawMessage(2).find(marker), std::string::npos);
  EXPECT_NE(smtp.RawMessage(2).find("\r\n--" + boundary + "--\r\n"), std::string::npos);
}

TEST(MultipartMessageTest, CallerBoundaryIsKept) {
  TempFolder folder;
  ardESMTP smtp;
  smtp.Boundary("my-boundary");
  smtp.AddAttachment(folder.Write("a.txt", "a"));
  smtp.BuildMultipartMessage("r@x");
  EXPECT_EQ(smtp.Boundary(), "my-boundary");
}

TEST(MultipartMessageTest, InlinePartFollowsAttachmentPartInOrder) {
  TempFolder folder;
  ardESMTP smtp;
  smtp.Boundary("BB");
  smtp.MsgContentType("text/html");
  smtp.AddAttachment(folder.Write("a.pdf", "%PDF-1"));
  smtp.AddAttachmentAsInline(folder.Write("logo.gif", "GIF89a"), std::string("logo"));
  smtp.BuildMultipartMessage("r@x");
  const std::string& m = smtp.MessageBuffer();
  const size_t text = m.find("--BB\r\nContent-type: text/html\r\n");
  const size_t pdf = m.find("--BB\r\nContent-Type: application/x-pdf;\r\n");
  const size_t gif = m.find(
      "--BB\r\nContent-Type: image/gif;\r\n     name=\"logo.gif\"\r\n"
      "Content-ID: logo\r\n");
  ASSERT_NE(text, std::string::npos);
  ASSERT_NE(pdf, std::string::npos);
  ASSERT_NE(gif, std::string::npos);
  EXPECT_LT(text, pdf);
  EXPECT_LT(pdf, gif);
}

TEST(RawMessagesTest, CreateRawMessagesAppendsOneSetPerCall) {
  ardESMTP smtp;
  smtp.AddRecipient("a@x");
  smtp.AddRecipient("b@x");
  smtp.CreateRawMessages();
  smtp.CreateRawMessages();
  EXPECT_EQ(smtp.RawMessages()->Count(), 4);
  EXPECT_NE(smtp.RawMessage().find("\r\nTo: a@x\r\n"), std::string::npos);
  EXPECT_NE(smtp.RawMessage(2).find("\r\nTo: b@x\r\n"), std::string::npos);
  EXPECT_NE(smtp.RawMessage(3).find("\r\nTo: a@x\r\n"), std::string::npos);
  EXPECT_EQ(smtp.RawMessage(0), "");
  EXPECT_EQ(smtp.RawMessage(5), "");
  smtp.ClearRawMessages();
  EXPECT_EQ(smtp.RawMessages()->Count(), 0);
  EXPECT_EQ(smtp.RawMessage(), "");
}

TEST(RawMessageFileTest, WritesTheMessageAndReplacesAnOldFile) {
  TempFolder folder;
  const std::string path = folder.Write("out.eml", std::string(10000, 'z'));
  ardESMTP smtp;
  smtp.OutputFileName(path);
  smtp.AddRecipient("a@x");
  smtp.AddRecipient("b@x");
  smtp.MsgBody("body");
  smtp.WriteRawMessageFile(2);
  const std::string written = ReadAll(path);
  EXPECT_EQ(written, smtp.MessageBuffer());
  EXPECT_NE(written.find("\r\nTo: b@x\r\n"), std::string::npos);
  EXPECT_EQ(written.substr(written.size() - 5), "\r\n.\r\n");
  smtp.WriteRawMessageFile();
  EXPECT_NE(ReadAll(path).find("\r\nTo: a@x\r\n"), std::string::npos);
}

TEST(RawMessageFileTest, RecipientOutsideTheListRaisesIndexError) {
  TempFolder folder;
  ardESMTP smtp;
  smtp.OutputFileName(folder.File("out.eml"));
  EXPECT_RUNTIME_ERROR(smtp.WriteRawMessageFile(), err::kSubscriptOutOfRange);
  smtp.AddRecipient("a@x");
  EXPECT_RUNTIME_ERROR(smtp.WriteRawMessageFile(2), err::kSubscriptOutOfRange);
}

TEST(RawMessageFileTest, UnwritablePathRaisesAFileError) {
  ardESMTP smtp;
  smtp.OutputFileName("/nonexistent/quillo/dir/out.eml");
  smtp.AddRecipient("a@x");
  try {
    smtp.WriteRawMessageFile();
    FAIL() << "no error";
  } catch (const RuntimeError& e) {
    EXPECT_TRUE(e.number == err::kPathFileAccessError || e.number == err::kFileNotFound)
        << e.number;
  }
}

TEST(ClientDefaultsTest, StartWithTheBuiltInValues) {
  ardESMTP smtp;
  EXPECT_EQ(smtp.Port(), 25);
  EXPECT_EQ(smtp.ConnectTimeout(), 60);
  EXPECT_EQ(smtp.CommandTimeout(), 60);
  EXPECT_EQ(smtp.CommandDataTimeout(), 900);
  EXPECT_EQ(smtp.ExecutionTime(), 300);
  EXPECT_EQ(smtp.rc(), 0);
  EXPECT_FALSE(smtp.UseAuthentication());
  EXPECT_EQ(smtp.MsgMimeVersion(), "1.0");
  EXPECT_EQ(smtp.MsgContentType(), "text/plain");
  EXPECT_EQ(smtp.MsgContentEncoding(), "7bit");
  EXPECT_EQ(smtp.XMailer(), "ardESMTP v2.0");
  EXPECT_EQ(smtp.XMimeOLE(), "ardESMTP v2.0");
  EXPECT_EQ(smtp.XPriority(), 0);
  EXPECT_EQ(smtp.Boundary(), "");
}

TEST(ClientDomainTest, MailServerSetsDomainToTheTextAfterTheFirstDot) {
  ardESMTP smtp;
  smtp.Domain("keep.me");
  smtp.MailServer("mailhost");
  EXPECT_EQ(smtp.Domain(), "keep.me");
  smtp.MailServer("a.b.c.d");
  EXPECT_EQ(smtp.Domain(), "b.c.d");
  EXPECT_EQ(smtp.MailServer(), "a.b.c.d");
}

TEST(ClientInterfaceTest, MembersStandInInterfaceOrder) {
  ardESMTP smtp;
  std::vector<std::string> names;
  for (const Member& m : smtp.Members().members()) {
    if (names.empty() || names.back() != m.name) names.push_back(m.name);
  }
  const std::vector<std::string> expected = {"MessageBuffer",
                                             "RawMessage",
                                             "Attachment",
                                             "Attachments",
                                             "RawMessages",
                                             "OutputFileName",
                                             "XPriority",
                                             "XMailer",
                                             "XMimeOLE",
                                             "WinsockErrorNumber",
                                             "WinsockErrorDescription",
                                             "WinsockErrorCode",
                                             "WinsockErrorSource",
                                             "WS",
                                             "MailServer",
                                             "Port",
                                             "AccountName",
                                             "AccountPassword",
                                             "Sender",
                                             "SenderFriendly",
                                             "Boundary",
                                             "Domain",
                                             "UseAuthentication",
                                             "ConnectTimeout",
                                             "CommandTimeout",
                                             "CommandDataTimeout",
                                             "ExecutionTime",
                                             "MsgRecipients",
                                             "MsgSubject",
                                             "MsgReplyTo",
                                             "MsgBody",
                                             "MsgMimeVersion",
                                             "MsgContentType",
                                             "MsgContentEncoding",
                                             "MsgBoundary",
                                             "ErrorCode",
                                             "rc",
                                             "Importance",
                                             "Sensitivity",
                                             "DispositionNotificationTo",
                                             "Winsock_DataArrival",
                                             "Winsock_Error",
                                             "AddRecipient",
                                             "ClearRecipients",
                                             "AddCustomHeader",
                                             "ClearCustomHeaders",
                                             "Send",
                                             "WriteRawMessageFile",
                                             "CreateRawMessages",
                                             "SendRawMessageText",
                                             "AddAttachment",
                                             "AddAttachmentAsInline",
                                             "ClearAttachments",
                                             "ClearRawMessages",
                                             "Transcript",
                                             "TransportFailed"};
  EXPECT_EQ(names, expected);
  // A property's set stands before its get, except MessageBuffer.
  const auto& members = smtp.Members().members();
  EXPECT_EQ(members[0].kind, CallKind::kGet);
  EXPECT_EQ(members[1].kind, CallKind::kPut);
  for (size_t i = 2; i + 1 < members.size(); ++i) {
    if (members[i].name == members[i + 1].name) {
      EXPECT_EQ(members[i].kind, CallKind::kPut) << members[i].name;
    }
  }
}

TEST(ClientInterfaceTest, ReadOnlyErrorPropertiesCannotBeSet) {
  ObjectPtr smtp = CreateObject("ardESMTP");
  EXPECT_RUNTIME_ERROR(smtp->Invoke("WinsockErrorNumber", CallKind::kPut, {Variant(int16_t{1})}),
                       err::kMemberNotFound);
  smtp->Invoke("rc", CallKind::kPut, {Variant(int16_t{42})});
  EXPECT_EQ(smtp->Invoke("rc", CallKind::kGet).ToLong(), 42);
}

}  // namespace
}  // namespace quillo
