#include "mail/returned_mail.h"

#include <gtest/gtest.h>

#include <string>

#include "codec/base64.h"

namespace quillo::mail {
namespace {

// A delivery status notification with the given report body and returned headers.
std::string Dsn(const std::string& status_body,
                const std::string& content_type =
                    "multipart/report; report-type=delivery-status;"
                    " boundary=\"B1\"",
                const std::string& status_headers = "Content-Type: message/delivery-status\n") {
  return "From: MAILER-DAEMON@mx.example.net (Mail Delivery System)\n"
         "To: bounces@news.example.com\n"
         "Date: Tue, 1 Sep 2026 12:15:00 +0200 (CEST)\n"
         "Subject: Undelivered Mail Returned to Sender\n"
         "MIME-Version: 1.0\n"
         "Content-Type: " +
         content_type +
         "\n"
         "\n"
         "This is a MIME-encapsulated message.\n"
         "\n"
         "--B1\n"
         "Content-Type: text/plain; charset=us-ascii\n"
         "\n"
         "Your message could not be delivered.\n"
         "\n"
         "--B1\n" +
         status_headers + "\n" + status_body +
         "\n"
         "--B1\n"
         "Content-Type: text/rfc822-headers\n"
         "\n"
         "From: News <news@news.example.com>\n"
         "To: ada@example.org\n"
         "List-Id: \"Spring\" <k1.news.example.com>\n"
         "Message-ID: <abc@news.example.com>\n"
         "\n"
         "--B1--\n";
}

const char* const kOneFailed =
    "Reporting-MTA: dns; mx.example.net\n"
    "Arrival-Date: Tue, 1 Sep 2026 12:14:58 +0200\n"
    "\n"
    "Final-Recipient: rfc822; ada@mx.example.org\n"
    "Original-Recipient: rfc822;ada@example.org\n"
    "Action: failed\n"
    "Status: 5.1.1 (bad destination mailbox address)\n"
    "Remote-MTA: dns; mx.example.org\n"
    "Diagnostic-Code: smtp; 550 5.1.1 <ada@example.org>: Recipient address\n"
    "    rejected: User unknown\n";

std::string Crlf(const std::string& lf) {
  std::string out;
  for (char c : lf) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

TEST(ReturnedMail, AFailedRecipientIsAHardBounceOfTheOriginalAddress) {
  ReturnedMail r = ParseReturnedMail(Dsn(kOneFailed));
  ASSERT_EQ(r.format, ReturnFormat::kDeliveryStatus) << r.problem;
  ASSERT_EQ(r.recipients.size(), 1u);
  EXPECT_EQ(r.recipients[0].address, "ada@example.org");
  EXPECT_EQ(r.recipients[0].kind, ReturnKind::kHard);
  EXPECT_EQ(r.recipients[0].action, "failed");
  EXPECT_EQ(r.recipients[0].status, "5.1.1");
  EXPECT_EQ(r.recipients[0].diagnostic,
            "smtp; 550 5.1.1 <ada@example.org>: Recipient address rejected: User unknown");
  EXPECT_EQ(r.addressed_to, std::vector<std::string>{"bounces@news.example.com"});
  ASSERT_TRUE(r.date.has_value());
  EXPECT_EQ(*r.date, 1788257700);  // 2026-09-01 10:15:00 UTC.
  EXPECT_EQ(r.returned_list_id, "\"Spring\" <k1.news.example.com>");
  EXPECT_EQ(r.returned_message_id, "<abc@news.example.com>");
}

TEST(ReturnedMail, CrlfLinesReadTheSameAsLfLines) {
  ReturnedMail lf = ParseReturnedMail(Dsn(kOneFailed));
  ReturnedMail crlf = ParseReturnedMail(Crlf(Dsn(kOneFailed)));
  ASSERT_EQ(crlf.format, ReturnFormat::kDeliveryStatus) << crlf.problem;
  ASSERT_EQ(crlf.recipients.size(), 1u);
  EXPECT_EQ(crlf.recipients[0].address, lf.recipients[0].address);
  EXPECT_EQ(crlf.recipients[0].diagnostic, lf.recipients[0].diagnostic);
  EXPECT_EQ(crlf.returned_list_id, lf.returned_list_id);
}

TEST(ReturnedMail, FoldedContentTypeWithCommentsQuotesAndCaseIsRead) {
  ReturnedMail r = ParseReturnedMail(
      Dsn(kOneFailed,
          "Multipart/Report (a report);\n\treport-type=\"Delivery-Status\";\n\tboundary=B1"));
  ASSERT_EQ(r.format, ReturnFormat::kDeliveryStatus) << r.problem;
  EXPECT_EQ(r.recipients.size(), 1u);
}

TEST(ReturnedMail, AReportInsideAMixedMessageIsFound) {
  std::string inner = Dsn(kOneFailed);
  std::string body = inner.substr(inner.find("\n\n") + 2);
  std::string mixed =
      "To: bounces@news.example.com\n"
      "Content-Type: multipart/mixed; boundary=OUT\n\n"
      "--OUT\n"
      "Content-Type: multipart/report; report-type=delivery-status; boundary=\"B1\"\n\n" +
      body + "\n--OUT--\n";
  ReturnedMail r = ParseReturnedMail(mixed);
  ASSERT_EQ(r.format, ReturnFormat::kDeliveryStatus) << r.problem;
  EXPECT_EQ(r.recipients.size(), 1u);
}

TEST(ReturnedMail, EachActionHasItsKind) {
  ReturnedMail r =
      ParseReturnedMail(Dsn("Reporting-MTA: dns; mx.example.net\n"
                            "\n"
                            "Final-Recipient: rfc822; <full@example.org>\n"
                            "Action: failed\n"
                            "Status: 4.2.2\n"
                            "\n"
                            "Final-Recipient: rfc822; slow@example.org\n"
                            "Action: delayed\n"
                            "Status: 4.4.1\n"
                            " \n"
                            "Final-Recipient: rfc822; fine@example.org\n"
                            "Action: relayed\n"
                            "Status: 2.0.0\n"
                            "\n"
                            "Final-Recipient: rfc822; odd@example.org\n"
                            "Action: exploded\n"
                            "Status: 5.0.0\n"
                            "\n"
                            "Final-Recipient: x400; c=US;a=;p=Example\n"
                            "Action: failed\n"
                            "Status: 5.0.0\n"));
  ASSERT_EQ(r.format, ReturnFormat::kDeliveryStatus) << r.problem;
  ASSERT_EQ(r.recipients.size(), 3u);
  EXPECT_EQ(r.recipients[0].address, "full@example.org");
  EXPECT_EQ(r.recipients[0].kind, ReturnKind::kSoft);
  EXPECT_EQ(r.recipients[1].kind, ReturnKind::kDelayed);
  EXPECT_EQ(r.recipients[2].kind, ReturnKind::kDelivered);
}

TEST(ReturnedMail, AnEncodedStatusPartIsDecoded) {
  ReturnedMail r = ParseReturnedMail(
      Dsn(Base64Encode(kOneFailed), "multipart/report; report-type=delivery-status; boundary=B1",
          "Content-Type: message/delivery-status\nContent-Transfer-Encoding: base64\n"));
  ASSERT_EQ(r.format, ReturnFormat::kDeliveryStatus) << r.problem;
  ASSERT_EQ(r.recipients.size(), 1u);
  EXPECT_EQ(r.recipients[0].status, "5.1.1");
}

TEST(ReturnedMail, WhatIsNotAStandardReportIsUnknownWithTheReason) {
  ReturnedMail reply = ParseReturnedMail(
      "From: ada@example.org\nTo: bounces@news.example.com\nAuto-Submitted: auto-replied\n"
      "Subject: Out of office\n\nI am away until Monday.\n");
  EXPECT_EQ(reply.format, ReturnFormat::kUnknown);
  EXPECT_EQ(reply.problem, "not a delivery status notification or feedback report (text/plain)");
  EXPECT_TRUE(reply.recipients.empty());

  ReturnedMail mdn = ParseReturnedMail(
      Dsn(kOneFailed, "multipart/report; report-type=disposition-notification; boundary=B1"));
  EXPECT_EQ(mdn.format, ReturnFormat::kUnknown);
  EXPECT_EQ(mdn.problem,
            "a report of type 'disposition-notification', not a delivery status notification or "
            "feedback report");

  ReturnedMail no_part = ParseReturnedMail(
      Dsn(kOneFailed, "multipart/report; report-type=delivery-status; boundary=B1",
          "Content-Type: text/plain\n"));
  EXPECT_EQ(no_part.format, ReturnFormat::kUnknown);
  EXPECT_EQ(no_part.problem, "a delivery-status report without its message/delivery-status part");

  ReturnedMail control = ParseReturnedMail(
      Dsn(kOneFailed, "multipart/report; report-type=\"x\x1b[2Jy\"; boundary=B1"));
  EXPECT_EQ(control.problem.find('\x1b'), std::string::npos);
}

TEST(ReturnedMail, AStatusWithoutRecipientsNamesNoOne) {
  ReturnedMail r = ParseReturnedMail(Dsn("Reporting-MTA: dns; mx.example.net\n"));
  EXPECT_EQ(r.format, ReturnFormat::kDeliveryStatus);
  EXPECT_TRUE(r.recipients.empty());
  EXPECT_EQ(r.problem, "the delivery status names no recipient with an action");
}

std::string Arf(const std::string& report, const std::string& returned_to = "ada@example.org") {
  return "From: feedback@fbl.example.net\n"
         "To: abuse@news.example.com\n"
         "Date: Thu, 10 Sep 2026 08:00:00 GMT\n"
         "Content-Type: multipart/report; report-type=feedback-report; boundary=\"F\"\n"
         "\n"
         "--F\n"
         "Content-Type: text/plain\n"
         "\n"
         "This is an e-mail abuse report.\n"
         "--F\n"
         "Content-Type: message/feedback-report\n"
         "\n" +
         report +
         "--F\n"
         "Content-Type: message/rfc822\n"
         "\n"
         "From: News <news@news.example.com>\n"
         "To: Ada <" +
         returned_to +
         ">\n"
         "List-Id: \"Spring\" <k1.news.example.com>\n"
         "\n"
         "Hello Ada\n"
         "--F--\n";
}

TEST(ReturnedMail, AFeedbackReportIsAComplaintOfItsRecipient) {
  ReturnedMail r = ParseReturnedMail(
      Arf("Feedback-Type: abuse\nUser-Agent: ExampleFBL/1.0\nVersion: 1\n"
          "Original-Rcpt-To: <ada@example.org>\nArrival-Date: Thu, 10 Sep 2026 07:59:00 GMT\n"));
  ASSERT_EQ(r.format, ReturnFormat::kFeedbackReport) << r.problem;
  ASSERT_EQ(r.recipients.size(), 1u);
  EXPECT_EQ(r.recipients[0].address, "ada@example.org");
  EXPECT_EQ(r.recipients[0].kind, ReturnKind::kComplaint);
  EXPECT_EQ(r.recipients[0].diagnostic, "abuse");
  EXPECT_EQ(r.returned_list_id, "\"Spring\" <k1.news.example.com>");
}

TEST(ReturnedMail, AFeedbackReportWithoutRcptToNamesTheReturnedTo) {
  ReturnedMail r = ParseReturnedMail(Arf("Feedback-Type: abuse\nVersion: 1\n", "bob@example.net"));
  ASSERT_EQ(r.recipients.size(), 1u);
  EXPECT_EQ(r.recipients[0].address, "bob@example.net");
}

TEST(ReturnedMail, FeedbackThatIsNoComplaintOrHasNoTypeIsNotTakenForOne) {
  ReturnedMail not_spam = ParseReturnedMail(Arf("Feedback-Type: not-spam\nVersion: 1\n"));
  EXPECT_EQ(not_spam.format, ReturnFormat::kFeedbackReport);
  EXPECT_TRUE(not_spam.recipients.empty());
  EXPECT_EQ(not_spam.problem, "a feedback report of type 'not-spam' is not a complaint");

  ReturnedMail untyped = ParseReturnedMail(Arf("Version: 1\n"));
  EXPECT_EQ(untyped.format, ReturnFormat::kUnknown);
  EXPECT_EQ(untyped.problem, "the feedback report has no Feedback-Type");
}

TEST(ReturnedMail, MailDatesOfEveryShapeAreReadAsUtc) {
  EXPECT_EQ(ParseMailDate("Tue, 1 Sep 2026 10:15:00 +0000"), 1788257700);
  EXPECT_EQ(ParseMailDate("Tue,  1 Sep 2026 12:15:00 +0200 (CEST)"), 1788257700);
  EXPECT_EQ(ParseMailDate("1 Sep 2026 06:15:00 EDT"), 1788257700);
  EXPECT_EQ(ParseMailDate("Tue, 01 Sep 2026 10:15 GMT"), 1788257700);
  EXPECT_EQ(ParseMailDate("Tue, 1 Sep 26 10:15:00 +0000"), 1788257700);
  EXPECT_FALSE(ParseMailDate("yesterday"));
  EXPECT_FALSE(ParseMailDate("Tue, 31 Foo 2026 10:15:00 +0000"));
  EXPECT_FALSE(ParseMailDate("Tue, 1 Sep 2026 25:15:00 +0000"));
  EXPECT_FALSE(ParseMailDate(""));
}

}  // namespace
}  // namespace quillo::mail
