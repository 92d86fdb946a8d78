#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "smtp/reply.h"
#include "smtp/session.h"
#include "support/scripted_smtp_peer.h"

namespace quillo::smtp {
namespace {

using quillo::testing::PeerConnection;
using quillo::testing::PeerReplies;
using quillo::testing::PeerSession;
using quillo::testing::ScriptedSmtpPeer;

SessionOptions Options(const ScriptedSmtpPeer& peer) {
  SessionOptions o;
  o.host = "127.0.0.1";
  o.port = peer.port();
  o.tls = TlsMode::kOpportunistic;
  o.helo_name = "mta.example.test";
  return o;
}

Envelope To(const std::string& recipient) { return {"news@example.test", {recipient}}; }

const char* kMessage = "Subject: hi\r\n\r\nHello\r\n";

bool Has(const std::vector<std::string>& commands, const std::string& command) {
  return std::find(commands.begin(), commands.end(), command) != commands.end();
}

TEST(ModernSession, MailFromHasNoBlankAfterTheColon) {
  ScriptedSmtpPeer peer;
  Session session(Options(peer));
  Outcome o = session.Send(To("ada@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(o.kind, OutcomeKind::kAccepted) << o.reason;
  peer.WaitForSessions(1);
  const auto commands = peer.Sessions()[0].commands;
  EXPECT_TRUE(Has(commands, "EHLO mta.example.test"));
  EXPECT_TRUE(Has(commands, "MAIL FROM:<news@example.test>"));
  EXPECT_TRUE(Has(commands, "RCPT TO:<ada@example.test>"));
  EXPECT_EQ(o.code, 250);
  EXPECT_EQ(o.enhanced, "2.0.0");
}

// "c<i>@example.test", built by appending (GCC 12 misreports a chain of + here).
std::string Numbered(int i) {
  std::string address = "c";
  address.append(std::to_string(i)).append("@example.test");
  return address;
}

TEST(ModernSession, AReusedSessionKeepsOnlyTheRecentTranscript) {
  ScriptedSmtpPeer peer;
  Session session(Options(peer));
  const int messages = 1200;  // Four commands or more each.
  for (int i = 0; i < messages; ++i) {
    ASSERT_EQ(session.Send(To(Numbered(i)), kMessage).kind, OutcomeKind::kAccepted);
  }
  session.Close();
  const auto& transcript = session.Transcript();
  EXPECT_GE(transcript.size(), Session::kTranscriptLines);
  EXPECT_LT(transcript.size(), 2 * Session::kTranscriptLines);
  // The newest lines are the ones kept.
  std::string last = "RCPT TO:<";
  last.append(Numbered(messages - 1)).append(">");
  EXPECT_TRUE(std::find(transcript.begin(), transcript.end(), last) != transcript.end());
  EXPECT_TRUE(std::find(transcript.begin(), transcript.end(), "RCPT TO:<c0@example.test>") ==
              transcript.end());
}

TEST(ModernSession, EhloGivesAFullyQualifiedNameOrAnAddressLiteral) {
  ScriptedSmtpPeer peer;
  SessionOptions options = Options(peer);
  options.helo_name.clear();
  Session session(options);
  EXPECT_EQ(session.Send(To("ada@example.test"), kMessage).kind, OutcomeKind::kAccepted);
  session.Close();
  peer.WaitForSessions(1);
  std::string ehlo = peer.Sessions()[0].commands.at(0);
  ASSERT_EQ(ehlo.rfind("EHLO ", 0), 0u);
  std::string name = ehlo.substr(5);
  EXPECT_TRUE(name == "[127.0.0.1]" || (name.find('.') != std::string::npos && name[0] != '['))
      << name;
  EXPECT_NE(name, "0.0.1");
}

TEST(ModernSession, HeloFallbackGivesTheSameName) {
  PeerReplies replies;
  replies.ehlo = "502 5.5.1 EHLO not implemented\r\n";
  ScriptedSmtpPeer peer(replies);
  Session session(Options(peer));
  Outcome o = session.Send(To("ada@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(o.kind, OutcomeKind::kAccepted) << o.reason;
  peer.WaitForSessions(1);
  EXPECT_TRUE(Has(peer.Sessions()[0].commands, "HELO mta.example.test"));
  EXPECT_FALSE(session.capabilities().esmtp);
}

TEST(ModernSession, NoDataAfterEveryRecipientWasRefused) {
  PeerReplies replies;
  replies.rcpt = "550 5.1.1 <ada@example.test>: Recipient address rejected\r\n";
  ScriptedSmtpPeer peer(replies);
  Session session(Options(peer));
  Outcome o = session.Send(To("ada@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(o.kind, OutcomeKind::kRefused);
  EXPECT_EQ(o.code, 550);
  EXPECT_EQ(o.enhanced, "5.1.1");
  EXPECT_NE(o.reason.find("RCPT TO refused"), std::string::npos) << o.reason;
  peer.WaitForSessions(1);
  EXPECT_FALSE(Has(peer.Sessions()[0].commands, "DATA"));
}

PeerReplies Pipelining() {
  PeerReplies replies;
  replies.ehlo = "250-peer.test\r\n250-PIPELINING\r\n250 8BITMIME\r\n";
  return replies;
}

// Greets and answers EHLO offering PIPELINING.
void GreetPipelining(PeerConnection& c) {
  const PeerReplies replies = Pipelining();
  c.Send(replies.greeting);
  c.ReadLine();  // EHLO
  c.Send(replies.ehlo);
}

// Reads a group of one MAIL, one RCPT and DATA before answering any of it,
// takes the message, and returns the group's lines.
std::vector<std::string> TakePipelinedMessage(PeerConnection& c) {
  const PeerReplies replies = Pipelining();
  std::vector<std::string> group;
  for (int i = 0; i < 3; ++i) group.push_back(c.ReadLine().value_or(""));
  c.Send(replies.mail + replies.rcpt + replies.data);
  c.ReadData();
  c.Send(replies.after_data);
  return group;
}

void AnswerQuit(PeerConnection& c) {
  c.ReadLine();
  c.Send(PeerReplies().quit);
}

TEST(ModernSession, PipeliningSendsMailRcptAndDataInOneGroup) {
  std::string first_write;
  ScriptedSmtpPeer peer([&](PeerConnection& c) {
    GreetPipelining(c);
    // The whole group is there before any of it is answered.
    const std::vector<std::string> group = TakePipelinedMessage(c);
    first_write = group[0] + "|" + group[1] + "|" + group[2];
    AnswerQuit(c);
  });
  Session session(Options(peer));
  Outcome o = session.Send(To("ada@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(o.kind, OutcomeKind::kAccepted) << o.reason;
  peer.WaitForSessions(1);
  EXPECT_EQ(first_write, "MAIL FROM:<news@example.test>|RCPT TO:<ada@example.test>|DATA");
}

TEST(ModernSession, NothingOfTheMessageGoesWhenEveryPipelinedRecipientWasRefused) {
  PeerReplies replies = Pipelining();
  replies.rcpt = "550 5.1.1 unknown\r\n";
  replies.refuse_data_without_recipients = true;  // The pipelined DATA gets 554.
  ScriptedSmtpPeer peer(replies);
  Session session(Options(peer));
  Outcome o = session.Send(To("ada@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(o.kind, OutcomeKind::kRefused);
  EXPECT_EQ(o.code, 550);  // The recipient's refusal decides, not DATA's.
  peer.WaitForSessions(1);
  EXPECT_EQ(peer.Sessions()[0].data, "");
}

TEST(ModernSession, APipelinedDataTakenWithoutRecipientsIsEndedWithALoneDot) {
  // A server that answers 354 although it refused the only recipient.
  std::vector<std::string> after_data;
  ScriptedSmtpPeer peer([&](PeerConnection& c) {
    const PeerReplies replies = Pipelining();
    GreetPipelining(c);
    for (int i = 0; i < 3; ++i) c.ReadLine();  // MAIL, RCPT, DATA
    c.Send(replies.mail + "550 5.1.1 unknown\r\n" + replies.data);
    auto dot = c.ReadLine();
    after_data.push_back(dot.value_or("(none)"));
    c.Send("554 5.5.1 Error: no valid recipients\r\n");
    TakePipelinedMessage(c);  // The next message, on the same connection.
    AnswerQuit(c);
  });
  Session session(Options(peer));
  Outcome refused = session.Send(To("ada@example.test"), kMessage);
  Outcome next = session.Send(To("alan@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(refused.kind, OutcomeKind::kRefused);
  EXPECT_EQ(refused.code, 550);
  EXPECT_EQ(next.kind, OutcomeKind::kAccepted) << next.reason;
  peer.WaitForSessions(1);
  ASSERT_EQ(after_data.size(), 1u);
  EXPECT_EQ(after_data[0], ".");  // The dot alone: not a line of the message.
  EXPECT_EQ(peer.connections(), 1);
}

// Reads a pipelined group of one MAIL, one RCPT and DATA without answering.
std::vector<std::string> ReadGroup(PeerConnection& c) {
  std::vector<std::string> group;
  for (int i = 0; i < 3; ++i) group.push_back(c.ReadLine().value_or("(none)"));
  return group;
}

// Greets, takes one pipelined message up to the end of its data without
// answering that end, and reads the group announced with it. Returns the
// message's data and the announced group.
std::pair<std::string, std::vector<std::string>> TakeDataAndAnnouncedGroup(PeerConnection& c) {
  const PeerReplies replies = Pipelining();
  GreetPipelining(c);
  ReadGroup(c);
  c.Send(replies.mail + replies.rcpt + replies.data);
  std::string data = c.ReadData().value_or("(none)");
  return {data, ReadGroup(c)};
}

const std::vector<std::string> kAlansGroup = {"MAIL FROM:<news@example.test>",
                                              "RCPT TO:<alan@example.test>", "DATA"};

TEST(ModernSession, TheNextMessagesGroupGoesWithTheEndOfTheData) {
  std::vector<std::string> second_group;
  std::vector<std::string> data;
  ScriptedSmtpPeer peer([&](PeerConnection& c) {
    const PeerReplies replies = Pipelining();
    // The next group is there before the end of the data is answered.
    auto [first_data, group] = TakeDataAndAnnouncedGroup(c);
    data.push_back(first_data);
    second_group = group;
    c.Send(replies.after_data + replies.mail + replies.rcpt + replies.data);
    data.push_back(c.ReadData().value_or("(none)"));
    c.Send(replies.after_data);
    AnswerQuit(c);
  });
  Session session(Options(peer));
  const Envelope alan = To("alan@example.test");
  Outcome first = session.Send(To("ada@example.test"), kMessage, &alan, kMessage);
  Outcome second = session.Send(alan, kMessage);
  session.Close();
  EXPECT_EQ(first.kind, OutcomeKind::kAccepted) << first.reason;
  EXPECT_EQ(second.kind, OutcomeKind::kAccepted) << second.reason;
  peer.WaitForSessions(1);
  EXPECT_EQ(second_group, kAlansGroup);
  EXPECT_EQ(peer.connections(), 1);
  const std::string one = "Subject: hi\r\n\r\nHello\r\n.\r\n";
  EXPECT_EQ(data, (std::vector<std::string>{one, one}));
  EXPECT_TRUE(Has(peer.Sessions()[0].commands, "QUIT"));
}

TEST(ModernSession, AnAnnouncedMessageThatDoesNotComeIsNeverEnded) {
  // Close after an announced message, or a Send of another message: the
  // announced DATA was taken, so anything more would be its data. The
  // connection goes without QUIT and the announced message stays unended.
  for (bool other_message : {false, true}) {
    std::atomic<int> connection{0};
    std::optional<std::string> alans_data = "(not read)";
    ScriptedSmtpPeer peer([&](PeerConnection& c) {
      const PeerReplies replies = Pipelining();
      if (++connection > 1) return quillo::testing::Respond(c, replies);
      TakeDataAndAnnouncedGroup(c);  // Ada's data, Alan's group.
      c.Send(replies.after_data + replies.mail + replies.rcpt + replies.data);
      alans_data = c.ReadData();  // Nothing comes: the client closes.
    });
    Session session(Options(peer));
    const Envelope alan = To("alan@example.test");
    EXPECT_EQ(session.Send(To("ada@example.test"), kMessage, &alan, kMessage).kind,
              OutcomeKind::kAccepted);
    if (other_message) {
      Outcome grace = session.Send(To("grace@example.test"), kMessage);
      EXPECT_EQ(grace.kind, OutcomeKind::kAccepted) << grace.reason;
    }
    session.Close();
    peer.WaitForSessions(other_message ? 2 : 1);
    EXPECT_EQ(peer.connections(), other_message ? 2 : 1);
    const PeerSession first = peer.Sessions()[0];
    EXPECT_TRUE(Has(first.commands, "RCPT TO:<alan@example.test>"));  // Announced...
    EXPECT_FALSE(Has(first.commands, "QUIT"));
    EXPECT_EQ(first.data, "Subject: hi\r\n\r\nHello\r\n.\r\n");  // Ada's.
    EXPECT_EQ(alans_data, std::nullopt);                         // Alan's never ended.
    if (other_message) {
      EXPECT_TRUE(Has(peer.Sessions()[1].commands, "RCPT TO:<grace@example.test>"));
      EXPECT_FALSE(Has(peer.Sessions()[1].commands, "RCPT TO:<alan@example.test>"));
    }
  }
}

TEST(ModernSession, AnAnnouncedMessageGoesOnANewConnectionAfterA421OrALostConnection) {
  // The end of ada's data gets 421, or 250 and then the server goes.
  for (bool closing_reply : {true, false}) {
    std::atomic<int> connection{0};
    ScriptedSmtpPeer peer([&](PeerConnection& c) {
      const PeerReplies replies = Pipelining();
      if (++connection > 1) return quillo::testing::Respond(c, replies);
      TakeDataAndAnnouncedGroup(c);
      c.Send(closing_reply ? "421 4.3.2 Service shutting down\r\n" : replies.after_data);
    });
    Session session(Options(peer));
    const Envelope alan = To("alan@example.test");
    Outcome ada = session.Send(To("ada@example.test"), kMessage, &alan, kMessage);
    Outcome second = session.Send(alan, kMessage);
    session.Close();
    EXPECT_EQ(ada.kind, closing_reply ? OutcomeKind::kDeferred : OutcomeKind::kAccepted);
    EXPECT_EQ(second.kind, OutcomeKind::kAccepted) << second.reason;
    peer.WaitForSessions(2);
    ASSERT_EQ(peer.connections(), 2);
    // Alan's group went with ada's data, and his message on the new connection, once.
    EXPECT_TRUE(Has(peer.Sessions()[0].commands, "RCPT TO:<alan@example.test>"));
    EXPECT_EQ(peer.Sessions()[1].data, "Subject: hi\r\n\r\nHello\r\n.\r\n");
    EXPECT_TRUE(Has(peer.Sessions()[1].commands, "RCPT TO:<alan@example.test>"));
  }
}

TEST(ModernSession, NoMessageIsAnnouncedWithoutPipeliningOrPastTheCap) {
  // Without PIPELINING every command waits for its reply; with a cap of one
  // message a connection, the next message goes on a connection of its own.
  for (bool capped : {false, true}) {
    ScriptedSmtpPeer peer(capped ? Pipelining() : PeerReplies());
    SessionOptions options = Options(peer);
    if (capped) options.max_messages_per_connection = 1;
    Session session(options);
    const Envelope alan = To("alan@example.test");
    EXPECT_EQ(session.Send(To("ada@example.test"), kMessage, &alan, kMessage).kind,
              OutcomeKind::kAccepted);
    EXPECT_EQ(session.Send(alan, kMessage).kind, OutcomeKind::kAccepted);
    session.Close();
    peer.WaitForSessions(capped ? 2 : 1);
    EXPECT_EQ(peer.connections(), capped ? 2 : 1);
    if (capped) {
      EXPECT_FALSE(Has(peer.Sessions()[0].commands, "RCPT TO:<alan@example.test>"));
      EXPECT_TRUE(Has(peer.Sessions()[0].commands, "QUIT"));
    }
  }
}

TEST(ModernSession, DotStuffingKeepsLoneDotsAndLeadingDots) {
  ScriptedSmtpPeer peer;
  Session session(Options(peer));
  Outcome o =
      session.Send(To("ada@example.test"), "Subject: x\r\n\r\n.\r\n.x\r\nRCPT TO:<e@x>\r\n");
  session.Close();
  EXPECT_EQ(o.kind, OutcomeKind::kAccepted) << o.reason;
  peer.WaitForSessions(1);
  EXPECT_EQ(peer.Sessions()[0].data, "Subject: x\r\n\r\n..\r\n..x\r\nRCPT TO:<e@x>\r\n.\r\n");
}

TEST(ModernSession, MessagesShareOneConnectionWithoutRsetAfterAnEndedTransaction) {
  ScriptedSmtpPeer peer;
  Session session(Options(peer));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(session.Send(To("ada@example.test"), kMessage).kind, OutcomeKind::kAccepted);
  }
  session.Close();
  peer.WaitForSessions(1);
  EXPECT_EQ(peer.connections(), 1);
  const auto commands = peer.Sessions()[0].commands;
  EXPECT_EQ(std::count(commands.begin(), commands.end(), "RSET"), 0);
  EXPECT_EQ(std::count(commands.begin(), commands.end(), "MAIL FROM:<news@example.test>"), 3);
}

TEST(ModernSession, AMessageAfterAnUnendedTransactionStartsWithRset) {
  for (const PeerReplies& replies : {PeerReplies(), Pipelining()}) {
    // Refuses ada, so her transaction ends without data; takes anyone else.
    ScriptedSmtpPeer peer([&replies](PeerConnection& c) {
      c.Send(replies.greeting);
      bool recipient = false;
      while (auto line = c.ReadLine()) {
        if (line->rfind("EHLO", 0) == 0) c.Send(replies.ehlo);
        if (line->rfind("MAIL", 0) == 0 || *line == "RSET") c.Send(replies.mail);
        if (line->rfind("RCPT", 0) == 0) {
          recipient = line->find("ada@") == std::string::npos;
          c.Send(recipient ? replies.rcpt : "550 5.1.1 unknown\r\n");
        }
        if (*line == "DATA" && !recipient) c.Send("554 5.5.1 Error: no valid recipients\r\n");
        if (*line == "DATA" && recipient) {
          c.Send(replies.data);
          c.ReadData();
          c.Send(replies.after_data);
        }
        if (*line == "QUIT") return c.Send(replies.quit);
      }
    });
    Session session(Options(peer));
    EXPECT_EQ(session.Send(To("ada@example.test"), kMessage).kind, OutcomeKind::kRefused);
    EXPECT_EQ(session.Send(To("alan@example.test"), kMessage).kind, OutcomeKind::kAccepted);
    EXPECT_EQ(session.Send(To("grace@example.test"), kMessage).kind, OutcomeKind::kAccepted);
    session.Close();
    peer.WaitForSessions(1);
    ASSERT_EQ(peer.connections(), 1);
    const auto commands = peer.Sessions()[0].commands;
    auto alan = std::find(commands.begin(), commands.end(), "RCPT TO:<alan@example.test>");
    ASSERT_TRUE(alan - commands.begin() >= 2);
    EXPECT_EQ(*(alan - 2), "RSET");  // Before alan's MAIL, and only there.
    EXPECT_EQ(std::count(commands.begin(), commands.end(), "RSET"), 1);
  }
}

TEST(ModernSession, TheCapOnMessagesPerConnectionOpensANewOne) {
  ScriptedSmtpPeer peer;
  SessionOptions options = Options(peer);
  options.max_messages_per_connection = 2;
  Session session(options);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(session.Send(To("ada@example.test"), kMessage).kind, OutcomeKind::kAccepted);
  }
  session.Close();
  peer.WaitForSessions(2);
  EXPECT_EQ(peer.connections(), 2);
}

TEST(ModernSession, A421MidRunIsFollowedByAReconnect) {
  std::atomic<int> connection{0};
  ScriptedSmtpPeer peer([&](PeerConnection& c) {
    int n = ++connection;
    PeerReplies replies;
    if (n == 1) {
      // The first connection takes one message, then the server goes away.
      c.Send(replies.greeting);
      for (int messages = 0;;) {
        auto line = c.ReadLine();
        if (!line) return;
        if (line->rfind("EHLO", 0) == 0) c.Send(replies.ehlo);
        if (line->rfind("MAIL", 0) == 0) {
          if (messages == 1) {
            c.Send("421 4.3.2 Service shutting down\r\n");
            return;
          }
          c.Send(replies.mail);
        }
        if (line->rfind("RCPT", 0) == 0) c.Send(replies.rcpt);
        if (*line == "DATA") {
          c.Send(replies.data);
          c.ReadData();
          c.Send(replies.after_data);
          ++messages;
        }
      }
    }
    quillo::testing::Respond(c, replies);
  });
  Session session(Options(peer));
  EXPECT_EQ(session.Send(To("ada@example.test"), kMessage).kind, OutcomeKind::kAccepted);
  Outcome second = session.Send(To("alan@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(second.kind, OutcomeKind::kAccepted) << second.reason;
  peer.WaitForSessions(2);
  EXPECT_EQ(peer.connections(), 2);
  EXPECT_TRUE(Has(peer.Sessions()[1].commands, "RCPT TO:<alan@example.test>"));
}

TEST(ModernSession, AClosedConnectionIsNoticedAtOnce) {
  ScriptedSmtpPeer peer([](PeerConnection& c) {
    PeerReplies replies;
    c.Send(replies.greeting);
    c.ReadLine();  // EHLO
    c.Send(replies.ehlo);
    c.ReadLine();  // MAIL: the server goes away without a word.
  });
  SessionOptions options = Options(peer);  // Standard timeouts: minutes.
  Session session(options);
  auto start = std::chrono::steady_clock::now();
  Outcome o = session.Send(To("ada@example.test"), kMessage);
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(o.kind, OutcomeKind::kFailed);
  EXPECT_NE(o.reason.find("closed the connection"), std::string::npos) << o.reason;
  EXPECT_LT(took, std::chrono::seconds(30));  // Not the five-minute reply timeout.
  EXPECT_FALSE(session.IsOpen());
}

TEST(ModernSession, AuthIsNotSentWithoutTls) {
  ScriptedSmtpPeer peer;  // Offers AUTH LOGIN, no STARTTLS.
  SessionOptions options = Options(peer);
  options.user = "mailer";
  options.password = "s3cret";
  Session session(options);
  Outcome o = session.Open();
  EXPECT_EQ(o.kind, OutcomeKind::kFailed);
  EXPECT_NE(o.reason.find("without TLS"), std::string::npos) << o.reason;
  EXPECT_EQ(o.reason.find("s3cret"), std::string::npos);
  peer.WaitForSessions(1);
  const auto commands = peer.Sessions()[0].commands;
  for (const auto& command : commands) {
    EXPECT_EQ(command.rfind("AUTH", 0), std::string::npos) << command;
  }
}

TEST(ModernSession, AuthInClearWhenAllowedUsesLoginAndKeepsThePasswordOutOfTheTranscript) {
  ScriptedSmtpPeer peer;
  SessionOptions options = Options(peer);
  options.user = "mailer";
  options.password = "s3cret";
  options.allow_plaintext_auth = true;
  Session session(options);
  Outcome o = session.Send(To("ada@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(o.kind, OutcomeKind::kAccepted) << o.reason;
  peer.WaitForSessions(1);
  EXPECT_TRUE(Has(peer.Sessions()[0].commands, "AUTH LOGIN"));
  for (const auto& line : session.Transcript()) {
    EXPECT_EQ(line.find("czNjcmV0"), std::string::npos) << line;  // base64 of the password
  }
}

TEST(ModernSession, TlsRequiredWithoutStarttlsOfferedSendsNothing) {
  ScriptedSmtpPeer peer;
  SessionOptions options = Options(peer);
  options.tls = TlsMode::kRequired;
  Session session(options);
  Outcome o = session.Send(To("ada@example.test"), kMessage);
  EXPECT_EQ(o.kind, OutcomeKind::kFailed);
  EXPECT_NE(o.reason.find("STARTTLS"), std::string::npos) << o.reason;
  peer.WaitForSessions(1);
  EXPECT_FALSE(Has(peer.Sessions()[0].commands, "MAIL FROM:<news@example.test>"));
}

TEST(ModernSession, EightBitBodiesSayBody8BitMimeWhenOffered) {
  ScriptedSmtpPeer peer;  // Offers 8BITMIME.
  Session session(Options(peer));
  Envelope e = To("ada@example.test");
  e.body_8bitmime = true;
  EXPECT_EQ(session.Send(e, kMessage).kind, OutcomeKind::kAccepted);
  session.Close();
  peer.WaitForSessions(1);
  EXPECT_TRUE(Has(peer.Sessions()[0].commands, "MAIL FROM:<news@example.test> BODY=8BITMIME"));
}

TEST(ModernSession, EightBitBodiesAreRefusedWhenTheServerLacks8BitMime) {
  PeerReplies replies;
  replies.ehlo = "250-peer.test\r\n250 PIPELINING\r\n";
  ScriptedSmtpPeer peer(replies);
  Session session(Options(peer));
  Envelope e = To("ada@example.test");
  e.body_8bitmime = true;
  Outcome o = session.Send(e, kMessage);
  EXPECT_EQ(o.kind, OutcomeKind::kRefused);
  EXPECT_NE(o.reason.find("8BITMIME"), std::string::npos);
}

TEST(ModernSession, SmtpUtf8IsGivenWhenOfferedAndNeeded) {
  PeerReplies replies;
  replies.ehlo = "250-peer.test\r\n250-SMTPUTF8\r\n250 8BITMIME\r\n";
  ScriptedSmtpPeer peer(replies);
  Session session(Options(peer));
  Envelope e{"news@example.test", {"zoë@example.test"}, false, true};
  EXPECT_EQ(session.Send(e, kMessage).kind, OutcomeKind::kAccepted);
  session.Close();
  peer.WaitForSessions(1);
  EXPECT_TRUE(Has(peer.Sessions()[0].commands, "MAIL FROM:<news@example.test> SMTPUTF8"));
  EXPECT_TRUE(Has(peer.Sessions()[0].commands, "RCPT TO:<zoë@example.test>"));
}

TEST(ModernSession, NonAsciiDomainsGoAsALabelsWithoutSmtpUtf8) {
  ScriptedSmtpPeer peer;
  Session session(Options(peer));
  EXPECT_EQ(session.Send(To("ada@bücher.example"), kMessage).kind, OutcomeKind::kAccepted);
  Outcome o = session.Send(To("zoë@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(o.kind, OutcomeKind::kRefused);
  EXPECT_NE(o.reason.find("SMTPUTF8"), std::string::npos) << o.reason;
  peer.WaitForSessions(1);
  EXPECT_TRUE(Has(peer.Sessions()[0].commands, "RCPT TO:<ada@xn--bcher-kva.example>"));
}

TEST(ModernSession, AnAddressWithALineBreakIsRefusedBeforeAnythingIsSent) {
  ScriptedSmtpPeer peer;
  Session session(Options(peer));
  Outcome o = session.Send(To("ada@example.test>\r\nRCPT TO:<eve@example.test"), kMessage);
  EXPECT_EQ(o.kind, OutcomeKind::kRefused);
  EXPECT_EQ(o.reason.rfind("not sent:", 0), 0u) << o.reason;
  EXPECT_EQ(peer.connections(), 0);
}

TEST(ModernSession, EveryOutcomeHasAReason) {
  PeerReplies replies;
  replies.after_data = "451 4.3.0 try later\r\n";
  ScriptedSmtpPeer peer(replies);
  Session session(Options(peer));
  Outcome o = session.Send(To("ada@example.test"), kMessage);
  session.Close();
  EXPECT_EQ(o.kind, OutcomeKind::kDeferred);
  EXPECT_EQ(o.enhanced, "4.3.0");
  EXPECT_FALSE(o.reason.empty());
  EXPECT_STREQ(OutcomeName(o.kind), "deferred");
}

TEST(ReplyParser, JoinsMultiLineRepliesAndReadsTheEnhancedCode) {
  ReplyParser parser;
  parser.Feed("250-mail.example.test\r\n250-PIPELINING\r\n");
  EXPECT_FALSE(parser.Next());
  parser.Feed("250 2.0.0 OK\r\n554 5.7.1 ");
  auto reply = parser.Next();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->code, 250);
  EXPECT_EQ(reply->lines.size(), 3u);
  EXPECT_EQ(reply->enhanced, "");
  EXPECT_FALSE(parser.Next());
  parser.Feed("denied\r\n");
  reply = parser.Next();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->enhanced, "5.7.1");
  EXPECT_EQ(reply->Text(), "554 5.7.1 denied");
}

TEST(ReplyParser, MarksBrokenRepliesMalformed) {
  ReplyParser parser;
  parser.Feed("hello there\r\n250-a\r\n251 b\r\n");
  auto first = parser.Next();
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->malformed);
  auto second = parser.Next();
  ASSERT_TRUE(second);
  EXPECT_TRUE(second->malformed);  // The code changed within one reply.
}

TEST(ReplyParser, CutsEndlessLines) {
  ReplyParser parser;
  parser.Feed(std::string(ReplyParser::kMaxLineLength + 10, '2'));
  auto reply = parser.Next();
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->malformed);
}

TEST(ReplyParser, TakesAnEnhancedCodeOnlyOfTheRepliesClass) {
  EXPECT_EQ(EnhancedStatusCode("5.1.1 unknown", 550), "5.1.1");
  EXPECT_EQ(EnhancedStatusCode("4.1.1 unknown", 550), "");
  EXPECT_EQ(EnhancedStatusCode("5.1 unknown", 550), "");
  EXPECT_EQ(EnhancedStatusCode("2.0.0", 250), "2.0.0");
}

}  // namespace
}  // namespace quillo::smtp
