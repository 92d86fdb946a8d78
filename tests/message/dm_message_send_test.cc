// Tests of dmMessage.Send: what it does to the SMTP client, in which order,
// with a recording stand-in for the client.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "message/dm_message.h"
#include "message/message_test_util.h"
#include "records/dmclients.h"
#include "support/error_matchers.h"

namespace quillo {
namespace {

using message_test::FilledClient;
using message_test::RecordingSmtp;

struct Fixture {
  std::shared_ptr<RecordingSmtp> smtp = std::make_shared<RecordingSmtp>();
  dmMessage message;
  explicit Fixture(const std::string& header_lines, const std::string& body = "Dear <!--FIRST-->") {
    message.esmtp(smtp);
    message.Client(FilledClient());
    message.Message("[HEADER]\r\n" + header_lines + "[/HEADER]\r\n" + body);
  }
};

TEST(dmMessageSend, AppliesContentParametersAttachmentsAndRecipientInOrder) {
  Fixture f(
      "Replace: FIRST\r\n"
      "Attach: docs\\price list.pdf\r\n"
      "SUBJECT: Literal <!--FIRST-->\r\n"
      "Inline:  img\\logo.gif ,  logo01 \r\n"
      "X-PRIORITY: 1.5\r\n"
      "FRIENDLY: Sales\r\n"
      "TIMEOUT: 30.5s\r\n"
      "DATATIMEOUT: abc\r\n"
      "TDL-CATALOG-CATEGORY: News\r\n"
      "tdl-catalog-description: Spring\r\n"
      "X-Custom: hello: world\r\n"
      "Attach: b.txt\r\n");
  f.message.Subject("Hi <!--FIRST-->");
  f.smtp->send_result = 0;
  EXPECT_EQ(f.message.Send(), 0);
  EXPECT_EQ(f.smtp->Trace(), (std::vector<std::string>{
                                 "MsgContentType=text/plain",
                                 "MsgSubject=Hi John",
                                 "MsgBody=Dear John",
                                 "MsgSubject=Literal <!--FIRST-->",
                                 "XPriority=2",
                                 "SenderFriendly=Sales",
                                 "CommandTimeout=30",
                                 "CommandDataTimeout=0",
                                 "AddCustomHeader(X-Custom: hello: world)",
                                 "ClearAttachments()",
                                 "AddAttachment(docs\\price list.pdf)",
                                 "AddAttachment(b.txt)",
                                 "AddAttachmentAsInline(img\\logo.gif, logo01)",
                                 "ClearRecipients()",
                                 "AddRecipient(john@example.com)",
                                 "Send()",
                             }));
}

TEST(dmMessageSend, EveryTextSettingGoesToItsPropertyAsItStands) {
  Fixture f(
      "subject: S\r\nContent-Type: text/x-a\r\nFRIENDLY: F\r\nSENDER: s@x\r\nREPLY-TO: r@x\r\n"
      "CONTENT-ENCODING: 8bit\r\nMIME-VERSION: 1.0\r\nX-MAILER: M\r\nX-MIMEOLE: O\r\n"
      "IMPORTANCE: high\r\nSENSITIVITY: private\r\nDISPOSITION-NOTIFICATION-TO: d@x\r\n");
  f.message.Send();
  EXPECT_EQ(f.smtp->Property("MsgSubject").ToString(), "S");
  EXPECT_EQ(f.smtp->Property("MsgContentType").ToString(), "text/x-a");
  EXPECT_EQ(f.smtp->Property("SenderFriendly").ToString(), "F");
  EXPECT_EQ(f.smtp->Property("Sender").ToString(), "s@x");
  EXPECT_EQ(f.smtp->Property("MsgReplyTo").ToString(), "r@x");
  EXPECT_EQ(f.smtp->Property("MsgContentEncoding").ToString(), "8bit");
  EXPECT_EQ(f.smtp->Property("MsgMimeVersion").ToString(), "1.0");
  EXPECT_EQ(f.smtp->Property("XMailer").ToString(), "M");
  EXPECT_EQ(f.smtp->Property("XMimeOLE").ToString(), "O");
  EXPECT_EQ(f.smtp->Property("Importance").ToString(), "high");
  EXPECT_EQ(f.smtp->Property("Sensitivity").ToString(), "private");
  EXPECT_EQ(f.smtp->Property("DispositionNotificationTo").ToString(), "d@x");
}

TEST(dmMessageSend, NumericSettingsTakeTheLeadingNumberRoundedHalfToEven) {
  Fixture f("TIMEOUT: 2.5\r\nDATATIMEOUT: 3.5 minutes\r\nX-PRIORITY: 4.5\r\n");
  f.message.Send();
  const Variant timeout = f.smtp->Property("CommandTimeout");
  const Variant data = f.smtp->Property("CommandDataTimeout");
  const Variant priority = f.smtp->Property("XPriority");
  EXPECT_EQ(timeout.Type(), VarType::kLong);
  EXPECT_EQ(timeout.ToLong(), 2);
  EXPECT_EQ(data.ToLong(), 4);
  EXPECT_EQ(priority.Type(), VarType::kInteger);
  EXPECT_EQ(priority.ToInteger(), 4);
}

TEST(dmMessageSend, PriorityBeyondSixteenBitsFailsWithOverflow) {
  Fixture f("X-PRIORITY: 40000\r\n");
  EXPECT_RUNTIME_ERROR(f.message.Send(), err::kOverflow);
}

TEST(dmMessageSend, LaterParameterOverridesEarlierOneAndTheContent) {
  Fixture f("Content-Type: text/a\r\nCONTENT-TYPE: text/b\r\n");
  f.message.ContentType("text/html");
  f.message.Send();
  EXPECT_EQ(f.smtp->Trace()[0], "MsgContentType=text/html");
  EXPECT_EQ(f.smtp->Property("MsgContentType").ToString(), "text/b");
}

TEST(dmMessageSend, SubjectParameterWinsAndIsNotPersonalised) {
  Fixture f("Replace: FIRST\r\nSUBJECT: For <!--FIRST-->\r\n");
  f.message.Subject("Hello <!--FIRST-->");
  f.message.Send();
  EXPECT_EQ(f.smtp->Property("MsgSubject").ToString(), "For <!--FIRST-->");
  EXPECT_EQ(f.message.Subject(), "Hello <!--FIRST-->");
}

TEST(dmMessageSend, WithoutReplaceLinesSubjectAndBodyGoAsTheyAre) {
  Fixture f("X-A: 1\r\n");
  f.message.Subject("Hello <!--FIRST-->");
  f.message.Send();
  EXPECT_EQ(f.smtp->Property("MsgSubject").ToString(), "Hello <!--FIRST-->");
  EXPECT_EQ(f.smtp->Property("MsgBody").ToString(), "Dear <!--FIRST-->");
}

TEST(dmMessageSend, MailAccountIsACustomHeaderAndSelectsNothingWithoutOverride) {
  // No connection is set: a lookup would fail, so passing shows none was made.
  Fixture f("MAILACCOUNT: sales@example.com\r\n");
  f.message.OverrideSendingAccount(false);
  f.message.Send();
  EXPECT_EQ(f.smtp->Trace()[3], "AddCustomHeader(MAILACCOUNT: sales@example.com)");
  EXPECT_TRUE(f.smtp->Property("MailServer").IsEmpty());
  EXPECT_TRUE(f.smtp->Property("Sender").IsEmpty());
}

TEST(dmMessageSend, IgnoredCatalogueParametersAreNotSent) {
  Fixture f("TDL-CATALOG-CATEGORY: a\r\nTDL-CATALOG-DESCRIPTION: b\r\n");
  f.message.Send();
  for (const std::string& line : f.smtp->Trace()) {
    EXPECT_EQ(line.find("TDL"), std::string::npos) << line;
  }
}

TEST(dmMessageSend, InlineWithFileAndContentIdIsAttachedInline) {
  Fixture f("Inline: a.gif, img1\r\n");
  f.message.Send();
  EXPECT_EQ(f.smtp->Trace()[4], "AddAttachmentAsInline(a.gif, img1)");
  EXPECT_EQ(f.smtp->calls[4].args.size(), 2u);  // Content type and name left out.
}

TEST(dmMessageSend, InlineWithThreePiecesIsSkipped) {
  Fixture f("Inline: a,b,c\r\nInline: d.gif,e\r\n");
  f.message.Send();
  EXPECT_EQ(f.smtp->Trace()[4], "AddAttachmentAsInline(d.gif, e)");
  EXPECT_EQ(f.smtp->Trace()[5], "ClearRecipients()");
}

TEST(dmMessageSend, InlineWithoutCommaFailsWithSubscriptOutOfRangeAfterEarlierWork) {
  Fixture f("Attach: x.pdf\r\nInline: a.gif\r\n");
  EXPECT_RUNTIME_ERROR(f.message.Send(), err::kSubscriptOutOfRange);
  const std::vector<std::string> trace = f.smtp->Trace();
  ASSERT_FALSE(trace.empty());
  EXPECT_EQ(trace.back(), "AddAttachment(x.pdf)");
}

TEST(dmMessageSend, AttachmentsLeaveContentTypeUnspecified) {
  Fixture f("Attach: a.pdf\r\n");
  f.message.Send();
  EXPECT_EQ(f.smtp->calls[4].name, "AddAttachment");
  EXPECT_EQ(f.smtp->calls[4].args.size(), 1u);
}

TEST(dmMessageSend, BlankRecipientBecomesTheClientsAddressAndStays) {
  Fixture f("X: 1\r\n");
  auto client = FilledClient();
  f.message.Client(client);
  f.message.Recipient("   ");
  f.message.Send();
  EXPECT_EQ(f.smtp->Trace().end()[-2], "AddRecipient(john@example.com)");
  client->Email("changed@example.com");
  f.smtp->calls.clear();
  f.message.Send();
  EXPECT_EQ(f.smtp->Trace().end()[-2], "AddRecipient(john@example.com)");
}

TEST(dmMessageSend, GivenRecipientIsUsedAsItStands) {
  Fixture f("X: 1\r\n");
  f.message.Recipient(" other@example.com ");
  f.message.Send();
  EXPECT_EQ(f.smtp->Trace().end()[-2], "AddRecipient( other@example.com )");
}

TEST(dmMessageSend, WithoutClientTheRecipientIsEmpty) {
  auto smtp = std::make_shared<RecordingSmtp>();
  dmMessage m;
  m.esmtp(smtp);
  m.Message("body");
  m.Send();
  EXPECT_EQ(smtp->Trace().end()[-2], "AddRecipient()");
}

TEST(dmMessageSend, ResultOfTheClientsSendIsPassedThroughWithItsSign) {
  Fixture f("X: 1\r\n");
  f.smtp->send_result = -2;
  EXPECT_EQ(f.message.Send(), -2);
  EXPECT_FALSE(f.message.Error());
}

TEST(dmMessageSend, CustomHeadersAreNeverCleared) {
  Fixture f("X-A: 1\r\n");
  f.message.Send();
  f.message.Send();
  int added = 0;
  for (const std::string& line : f.smtp->Trace()) {
    EXPECT_EQ(line.find("ClearCustomHeaders"), std::string::npos);
    if (line == "AddCustomHeader(X-A: 1)") ++added;
  }
  EXPECT_EQ(added, 2);
}

TEST(dmMessageSend, WithoutSmtpClientFailsWithObjectNotSet) {
  dmMessage m;
  m.Message("body");
  EXPECT_RUNTIME_ERROR(m.Send(), err::kObjectNotSet);
}

TEST(dmMessageSend, ByNameSendReturnsTheResult) {
  auto smtp = std::make_shared<RecordingSmtp>();
  smtp->send_result = 7;
  ObjectPtr m = CreateObject("dmMessage");
  m->Invoke("esmtp", CallKind::kPut, {Variant(ObjectPtr(smtp))});
  m->Invoke("Recipient", CallKind::kPut, {Variant("a@example.com")});
  m->Invoke("Message", CallKind::kPut, {Variant("hi")});
  const Variant result = m->Invoke("Send", CallKind::kMethod);
  EXPECT_EQ(result.Type(), VarType::kLong);
  EXPECT_EQ(result.ToLong(), 7);
}

}  // namespace
}  // namespace quillo
