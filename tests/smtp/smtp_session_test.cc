// Tests of the SMTP dialogue against a scripted peer on loopback: the order
// of commands, reply classification (continuation lines, unknown codes), the
// EHLO/HELO fallback, AUTH LOGIN, failure exits, the sticky transport error,
// the reply timeouts (set to 1 s), SendRawMessageText and bad servers.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "codec/base64.h"
#include "platform/event_loop.h"
#include "platform/tcp_socket.h"
#include "smtp/ard_esmtp.h"
#include "support/error_matchers.h"
#include "support/scripted_smtp_peer.h"
#include "support/temp_folder.h"

namespace quillo {
namespace {

using testing::PeerConnection;
using testing::PeerReplies;
using testing::ScriptedSmtpPeer;

// A client wired to a fresh TCP socket control, pointed at `port`.
struct Client {
  explicit Client(int port, bool forward = true) {
    socket = std::make_shared<TcpSocketControl>();
    smtp = std::make_shared<ardESMTP>();
    smtp->WS(socket);
    if (forward) ForwardEvents(socket, smtp);
    smtp->MailServer("127.0.0.1");
    smtp->Domain("client.test");
    smtp->Port(port);
    smtp->Sender("sender@client.test");
    smtp->MsgSubject("Subject line");
    smtp->MsgBody("Body text");
    smtp->CommandTimeout(1);
    smtp->CommandDataTimeout(1);
  }
  std::shared_ptr<TcpSocketControl> socket;
  std::shared_ptr<ardESMTP> smtp;
};

// A port with nothing listening on it.
int ClosedPort() {
  int port;
  {
    ScriptedSmtpPeer peer;
    port = peer.port();
  }
  return port;
}

TEST(SmtpSessionTest, EmptyRecipientListMakesNoConnection) {
  ScriptedSmtpPeer peer;
  Client c(peer.port());
  EXPECT_EQ(c.smtp->Send(), 0);
  EXPECT_EQ(peer.connections(), 0);
  EXPECT_EQ(c.smtp->rc(), 0);
}

TEST(SmtpSessionTest, CleanDialogueSendsTheCommandsInOrderAndLeaves221) {
  ScriptedSmtpPeer peer;
  Client c(peer.port());
  c.smtp->AddRecipient("rcpt@peer.test");
  EXPECT_EQ(c.smtp->Send(), 0);
  peer.WaitForSessions(1);
  const auto sessions = peer.Sessions();
  ASSERT_EQ(sessions.size(), 1u);
  const std::vector<std::string> expected = {"EHLO client.test", "MAIL FROM: <sender@client.test>",
                                             "RCPT TO: <rcpt@peer.test>", "DATA", "QUIT"};
  EXPECT_EQ(sessions[0].commands, expected);
  EXPECT_EQ(sessions[0].data, c.smtp->MessageBuffer());
  EXPECT_EQ(c.smtp->rc(), 221);
  EXPECT_FALSE(c.smtp->TransportFailed());
  EXPECT_EQ(c.socket->State(), SocketControl::kClosed);
  EXPECT_EQ(c.smtp->CommandTimeout(), 1);
}

TEST(SmtpSessionTest, ThreeRecipientsGetThreeDialoguesEachWithItsOwnToLine) {
  ScriptedSmtpPeer peer;
  Client c(peer.port());
  c.smtp->AddRecipient("a@peer.test");
  c.smtp->AddRecipient("b@peer.test");
  c.smtp->AddRecipient("c@peer.test");
  c.smtp->Send();
  peer.WaitForSessions(3);
  const auto sessions = peer.Sessions();
  ASSERT_EQ(sessions.size(), 3u);
  const char* names[] = {"a@peer.test", "b@peer.test", "c@peer.test"};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(sessions[i].commands[2], std::string("RCPT TO: <") + names[i] + ">");
    EXPECT_NE(sessions[i].data.find(std::string("\r\nTo: ") + names[i] + "\r\n"),
              std::string::npos);
    for (int j = 0; j < 3; ++j) {
      if (j != i) {
        EXPECT_EQ(sessions[i].data.find(names[j]), std::string::npos);
      }
    }
  }
}

TEST(SmtpSessionTest, EhloRefusedFallsBackToBareHeloAndCarriesOnWhateverItsReply) {
  PeerReplies replies;
  replies.ehlo = "502 5.5.1 EHLO not implemented\r\n";
  replies.helo = "550 no HELO either\r\n";
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->UseAuthentication(true);  // No AUTH without a 250 to EHLO.
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  peer.WaitForSessions(1);
  const auto commands = peer.Sessions()[0].commands;
  ASSERT_GE(commands.size(), 3u);
  EXPECT_EQ(commands[0], "EHLO client.test");
  EXPECT_EQ(commands[1], "HELO ");
  EXPECT_EQ(commands[2], "MAIL FROM: <sender@client.test>");
  EXPECT_EQ(commands.back(), "QUIT");
  EXPECT_EQ(c.smtp->rc(), 221);
}

TEST(SmtpSessionTest, OnlyTheLastLineOfAMultiLineReplyIsClassified) {
  PeerReplies replies;
  replies.ehlo = "502-first line looks like a refusal\r\n550-so does this\r\n250 fine\r\n";
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->UseAuthentication(true);
  c.smtp->AccountName("user");
  c.smtp->AccountPassword("secret");
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  peer.WaitForSessions(1);
  const auto commands = peer.Sessions()[0].commands;
  ASSERT_GE(commands.size(), 2u);
  EXPECT_EQ(commands[1], "AUTH LOGIN");  // 250 was seen, so no HELO.
}

TEST(SmtpSessionTest, GreetingOf554StopsBeforeEhloAndClosesTheConnection) {
  PeerReplies replies;
  replies.greeting = "554 go away\r\n";
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  peer.WaitForSessions(1);
  EXPECT_EQ(c.smtp->rc(), 554);
  EXPECT_TRUE(peer.Sessions()[0].commands.empty());
  EXPECT_TRUE(peer.Sessions()[0].closed_by_client);
  EXPECT_EQ(c.socket->State(), SocketControl::kClosed);
  EXPECT_FALSE(c.smtp->TransportFailed());
}

TEST(SmtpSessionTest, AuthLoginSendsBase64CredentialsAndMasksThemInTheTranscript) {
  ScriptedSmtpPeer peer;
  Client c(peer.port());
  c.smtp->UseAuthentication(true);
  c.smtp->AccountName("user@peer.test");
  c.smtp->AccountPassword("s3cret!");
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  peer.WaitForSessions(1);
  const std::vector<std::string> expected = {"EHLO client.test",
                                             "AUTH LOGIN",
                                             Base64Encode("user@peer.test"),
                                             Base64Encode("s3cret!"),
                                             "MAIL FROM: <sender@client.test>",
                                             "RCPT TO: <r@peer.test>",
                                             "DATA",
                                             "QUIT"};
  EXPECT_EQ(peer.Sessions()[0].commands, expected);
  EXPECT_EQ(c.smtp->rc(), 221);
  const std::string& transcript = c.smtp->Transcript();
  EXPECT_EQ(transcript.find(Base64Encode("s3cret!")), std::string::npos);
  EXPECT_EQ(transcript.find(Base64Encode("user@peer.test")), std::string::npos);
  EXPECT_NE(transcript.find("C: AUTH LOGIN\r\n"), std::string::npos);
  EXPECT_NE(transcript.find("C: ********\r\n"), std::string::npos);
  EXPECT_NE(transcript.find("S: 235 2.7.0 Authentication successful\r\n"), std::string::npos);
}

TEST(SmtpSessionTest, RejectedPasswordStopsBeforeMailFromWith535) {
  PeerReplies replies;
  replies.auth_password = "535 5.7.8 Authentication failed\r\n";
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->UseAuthentication(true);
  c.smtp->AccountName("u");
  c.smtp->AccountPassword("wrong");
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  peer.WaitForSessions(1);
  EXPECT_EQ(c.smtp->rc(), 535);
  const auto commands = peer.Sessions()[0].commands;
  EXPECT_EQ(commands.size(), 4u);
  for (const auto& command : commands) EXPECT_EQ(command.find("MAIL FROM"), std::string::npos);
}

TEST(SmtpSessionTest, RepliesToAuthAndUserNameAreNotChecked) {
  PeerReplies replies;
  replies.auth = "504 mechanism unknown\r\n";
  replies.auth_user = "501 what\r\n";
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->UseAuthentication(true);
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  peer.WaitForSessions(1);
  EXPECT_EQ(peer.Sessions()[0].commands.back(), "QUIT");
  EXPECT_EQ(c.smtp->rc(), 221);
}

TEST(SmtpSessionTest, RefusedRecipientIsRecordedButTheDialogueGoesOn) {
  PeerReplies replies;
  replies.rcpt = "550 5.1.1 no such user\r\n";
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->AddRecipient("nobody@peer.test");
  c.smtp->Send();
  peer.WaitForSessions(1);
  const auto commands = peer.Sessions()[0].commands;
  EXPECT_EQ(commands[3], "DATA");
  EXPECT_EQ(c.smtp->rc(), 221);
  // The transcript tells the refusal from a delivery.
  EXPECT_NE(c.smtp->Transcript().find("S: 550 5.1.1 no such user\r\n"), std::string::npos);
}

TEST(SmtpSessionTest, UnknownFinalCodeWaitsForTheTimeoutThenEveryLaterDialogueFails) {
  PeerReplies replies;
  replies.ehlo = "530 5.7.0 Must issue a STARTTLS command first\r\n";
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 0);
  EXPECT_TRUE(c.smtp->TransportFailed());
  EXPECT_NE(c.smtp->Transcript().find("-- reply timeout"), std::string::npos);
  peer.WaitForSessions(1);
  ASSERT_EQ(peer.Sessions()[0].commands.size(), 1u);  // EHLO only: no HELO, no MAIL.

  c.smtp->Send();  // The failure is sticky: no dialogue at all.
  const int16_t rc = c.smtp->rc();
  EXPECT_TRUE(rc == 999 || rc == 0) << rc;
  peer.WaitForSessions(2);
  const auto sessions = peer.Sessions();
  for (size_t i = 1; i < sessions.size(); ++i) EXPECT_TRUE(sessions[i].commands.empty());
}

TEST(SmtpSessionTest, TimedOutDialogueCountsAsSuccessForSendRawMessageText) {
  PeerReplies replies;
  replies.greeting = "";  // Silence.
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  const std::string text = "From: <s@x>\r\nTo: r@peer.test\r\nSubject: s\r\n\r\nbody\r\n.\r\n";
  EXPECT_TRUE(c.smtp->SendRawMessageText(text));
  EXPECT_EQ(c.smtp->rc(), 0);
  EXPECT_TRUE(c.smtp->TransportFailed());
}

TEST(SmtpSessionTest, HostThatDoesNotForwardDataArrivalStopsAtTheGreeting) {
  ScriptedSmtpPeer peer;
  Client c(peer.port(), /*forward=*/false);
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 0);
  EXPECT_TRUE(c.smtp->TransportFailed());
  peer.WaitForSessions(1);
  EXPECT_TRUE(peer.Sessions()[0].commands.empty());
}

TEST(SmtpSessionTest, DataTimeoutStaysInForceAfterAFailureAfterTheData) {
  PeerReplies replies;
  replies.after_data = "";  // Never confirms the message.
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->CommandTimeout(3);
  c.smtp->CommandDataTimeout(1);
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_TRUE(c.smtp->TransportFailed());
  EXPECT_EQ(c.smtp->CommandTimeout(), 1);
  EXPECT_EQ(c.smtp->rc(), 0);
}

TEST(SmtpSessionTest, RefusedConnectionGives999AndTheSocketError) {
  Client c(ClosedPort());
  c.smtp->AddRecipient("r@peer.test");
  EXPECT_EQ(c.smtp->Send(), 0);
  EXPECT_EQ(c.smtp->rc(), 999);
  EXPECT_EQ(c.smtp->WinsockErrorNumber(), SocketControl::kErrConnectionRefused);
  EXPECT_EQ(c.smtp->WinsockErrorCode(), SocketScode(SocketControl::kErrConnectionRefused));
  EXPECT_EQ(c.smtp->WinsockErrorSource(), "Winsock");
  EXPECT_FALSE(c.smtp->WinsockErrorDescription().empty());
  EXPECT_TRUE(c.smtp->TransportFailed());
}

TEST(SmtpSessionTest, UnknownHostGives999AndHostNotFound) {
  Client c(25);
  c.smtp->MailServer("no-such-host.invalid");
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 999);
  EXPECT_EQ(c.smtp->WinsockErrorNumber(), SocketControl::kErrHostNotFound);
}

TEST(SmtpSessionTest, ServerClosingAfterTheGreetingEndsInAFailure) {
  PeerReplies replies;
  replies.close_after_greeting = true;
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_TRUE(c.smtp->TransportFailed());
  EXPECT_NE(c.smtp->rc(), 221);
  EXPECT_EQ(c.socket->State(), SocketControl::kClosed);
}

TEST(SmtpSessionTest, GarbageRepliesEndInATimeout) {
  PeerReplies replies;
  static const char kGarbage[] = "\x01\x02garbage\r\nxx\r\n-\r\n2200 nope\r\n\xff\xfe";
  replies.greeting = std::string(kGarbage, sizeof kGarbage - 1);
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 0);
  EXPECT_TRUE(c.smtp->TransportFailed());
}

TEST(SmtpSessionTest, MegabyteLinesAreReadAndClassifiedByTheirHead) {
  PeerReplies replies;
  const std::string filler(1024 * 1024, 'x');
  replies.greeting = "220-" + filler + "\r\n220 " + filler + "\r\n";
  replies.ehlo = "250 " + filler + "\r\n";
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 221);
  EXPECT_LT(c.smtp->Transcript().size(), 16u * 1024);  // Lines are cut in the transcript.
}

TEST(SmtpSessionTest, MegabyteLineWithoutEndTimesOut) {
  ScriptedSmtpPeer peer([](PeerConnection& c) {
    c.Send(std::string(1024 * 1024, 'y'));
    c.WaitForClose(std::chrono::seconds(5));
  });
  Client c(peer.port());
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 0);
  EXPECT_TRUE(c.smtp->TransportFailed());
}

TEST(SmtpSessionTest, ResetDuringTheDialogueRaisesTheSocketError) {
  ScriptedSmtpPeer peer([](PeerConnection& c) {
    c.Send("220 hi\r\n");
    c.ReadLine();
    // Hang up hard: unread data makes the close a reset.
    c.Send("250-");
  });
  Client c(peer.port());
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_TRUE(c.smtp->TransportFailed());
  EXPECT_NE(c.smtp->rc(), 221);
}

TEST(SendRawMessageTextTest, WithoutABlankLineReturnsFalseAndSendsNothing) {
  ScriptedSmtpPeer peer;
  Client c(peer.port());
  EXPECT_FALSE(c.smtp->SendRawMessageText("To: r@x\r\nSubject: s\r\nbody"));
  EXPECT_FALSE(c.smtp->SendRawMessageText("From: <s@x>\r\nSubject: s\r\n\r\nTo: r@x\r\n"));
  EXPECT_FALSE(c.smtp->SendRawMessageText("From: <s@x>\r\nTo: r@x\r\n\r\nbody\r\n.\r\n"));
  EXPECT_EQ(peer.connections(), 0);
}

TEST(SendRawMessageTextTest, SendsTheTextUnchangedToTheTrimmedToAddress) {
  ScriptedSmtpPeer peer;
  Client c(peer.port());
  const std::string text = "From: <s@x>\r\nTO:   r@peer.test  \r\nSubject: s\r\n\r\nbody\r\n.\r\n";
  EXPECT_TRUE(c.smtp->SendRawMessageText(text));
  EXPECT_EQ(c.smtp->rc(), 0);
  EXPECT_EQ(c.smtp->MessageBuffer(), text);
  peer.WaitForSessions(1);
  EXPECT_EQ(peer.Sessions()[0].commands[2], "RCPT TO: <r@peer.test>");
  EXPECT_EQ(peer.Sessions()[0].data, text);
}

TEST(SendRawMessageTextTest, AcceptsTheRawMessageFileAsItStands) {
  testing::TempFolder folder;
  ScriptedSmtpPeer peer;
  Client c(peer.port());
  c.smtp->OutputFileName(folder.File("m.eml"));
  c.smtp->AddRecipient("file@peer.test");
  c.smtp->WriteRawMessageFile();
  const std::string text = c.smtp->MessageBuffer();
  EXPECT_TRUE(c.smtp->SendRawMessageText(text));
  peer.WaitForSessions(1);
  EXPECT_EQ(peer.Sessions()[0].data, text);
}

TEST(SendRawMessageTextTest, ReplyCodeStopResultIsFalseWithRc) {
  PeerReplies replies;
  replies.greeting = "421 busy\r\n";
  ScriptedSmtpPeer peer(replies);
  Client c(peer.port());
  EXPECT_FALSE(c.smtp->SendRawMessageText("To: r@x\r\nSubject: s\r\n\r\nb\r\n.\r\n"));
  EXPECT_EQ(c.smtp->rc(), 421);
}

TEST(SmtpByNameTest, HostDrivesTheClientAndSocketByName) {
  ScriptedSmtpPeer peer;
  ObjectPtr socket = CreateObject("TcpSocketControl");
  ObjectPtr smtp = CreateObject("ardESMTP");
  smtp->Invoke("WS", CallKind::kPut, {Variant(socket)});
  ForwardEvents(std::dynamic_pointer_cast<SocketControl>(socket), smtp);
  smtp->Invoke("MailServer", CallKind::kPut, {Variant("127.0.0.1")});
  smtp->Invoke("Port", CallKind::kPut, {Variant(static_cast<int32_t>(peer.port()))});
  smtp->Invoke("CommandTimeout", CallKind::kPut, {Variant(int32_t{1})});
  smtp->Invoke("Sender", CallKind::kPut, {Variant("s@x")});
  smtp->Invoke("AddRecipient", CallKind::kMethod, {Variant("r@x")});
  EXPECT_EQ(smtp->Invoke("Send", CallKind::kMethod).ToLong(), 0);
  EXPECT_EQ(smtp->Invoke("rc", CallKind::kGet).ToLong(), 221);
}

TEST(SmtpByNameTest, WinsockErrorForwarderStoresTheFourValues) {
  ObjectPtr smtp = CreateObject("ardESMTP");
  smtp->Invoke("Winsock_Error", CallKind::kMethod,
               {Variant(int16_t{10053}), Variant("aborted"), Variant(int32_t{-5}), Variant("src"),
                Variant("help"), Variant(int32_t{0}), Variant(false)});
  EXPECT_EQ(smtp->Invoke("WinsockErrorNumber", CallKind::kGet).ToLong(), 10053);
  EXPECT_EQ(smtp->Invoke("WinsockErrorDescription", CallKind::kGet).ToString(), "aborted");
  EXPECT_EQ(smtp->Invoke("WinsockErrorCode", CallKind::kGet).ToLong(), -5);
  EXPECT_EQ(smtp->Invoke("WinsockErrorSource", CallKind::kGet).ToString(), "src");
  EXPECT_TRUE(smtp->Invoke("TransportFailed", CallKind::kGet).ToBool());
}

}  // namespace
}  // namespace quillo

namespace quillo {
namespace {

TEST(SmtpSessionTest, RefusedConnectionWithoutForwardedErrorsDoesNotHang) {
  int port;
  {
    testing::ScriptedSmtpPeer peer;
    port = peer.port();
  }
  Client c(port, /*forward=*/false);
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 999);
  EXPECT_EQ(c.smtp->WinsockErrorNumber(), 0);
}

}  // namespace
}  // namespace quillo

namespace quillo {
namespace {

TEST(SmtpSessionTest, FiftyMegabyteAttachmentIsSentWhole) {
  testing::TempFolder folder;
  testing::ScriptedSmtpPeer peer;
  Client c(peer.port());
  c.smtp->CommandDataTimeout(60);
  c.smtp->AddAttachment(folder.Write("big.bin", std::string(50u * 1024 * 1024, 'b')));
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 221) << c.smtp->Transcript();
  peer.WaitForSessions(1);
  const auto sessions = peer.Sessions();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(sessions[0].data.size(), c.smtp->MessageBuffer().size());
  EXPECT_TRUE(sessions[0].data == c.smtp->MessageBuffer());
}

TEST(SmtpSessionTest, EmptyAttachmentGivesAPartWithNoLines) {
  testing::TempFolder folder;
  testing::ScriptedSmtpPeer peer;
  Client c(peer.port());
  c.smtp->Boundary("XB");
  c.smtp->AddAttachment(folder.Write("none.txt", ""));
  c.smtp->AddRecipient("r@peer.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 221);
  peer.WaitForSessions(1);
  EXPECT_NE(peer.Sessions()[0].data.find("filename=\"none.txt\"\r\n\r\n\r\n--XB--\r\n"),
            std::string::npos);
}

}  // namespace
}  // namespace quillo
