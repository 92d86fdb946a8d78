// Tests of the socket controls and the event pump: states, the DataArrival
// and Error events (typed and by name), partial reads, peer close, refused
// and unknown hosts, and the connect deadline of a TLS handshake that never
// completes.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/tcp_socket.h"
#include "platform/tls_socket.h"
#include "smtp/ard_esmtp.h"
#include "support/error_matchers.h"
#include "support/scripted_smtp_peer.h"

namespace quillo {
namespace {

using testing::PeerConnection;
using testing::ScriptedSmtpPeer;

// Pumps events until `done` or 10 s pass (a guard against hangs, not a timing).
template <class F>
bool PumpUntil(F done) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    DoEvents();
  }
  return true;
}

TEST(TcpSocketControlTest, ConnectsAndDeliversDataArrivalToCallbackAndSink) {
  ScriptedSmtpPeer peer([](PeerConnection& c) {
    c.Send("hello world\r\n");
    c.ReadLine();
  });
  auto socket = std::make_shared<TcpSocketControl>();
  EXPECT_EQ(socket->State(), SocketControl::kClosed);
  long typed_total = 0;
  std::vector<Variant> sink_args;
  socket->OnDataArrival([&](long n) { typed_total = n; });
  socket->Advise("DataArrival", [&](std::vector<Variant>& args) { sink_args = args; });
  socket->Connect("127.0.0.1", peer.port());
  ASSERT_TRUE(PumpUntil([&] { return socket->State() == SocketControl::kConnected; }));
  ASSERT_TRUE(PumpUntil([&] { return socket->BytesReceived() == 13; }));
  EXPECT_EQ(typed_total, 13);
  ASSERT_EQ(sink_args.size(), 1u);
  EXPECT_EQ(sink_args[0].ToLong(), 13);
  std::string part;
  socket->GetData(part, 8, 5);
  EXPECT_EQ(part, "hello");
  socket->GetData(part);
  EXPECT_EQ(part, " world\r\n");
  socket->SendData("bye\r\n");
  peer.WaitForSessions(1);
  EXPECT_EQ(peer.Sessions()[0].commands[0], "bye");
  socket->Close();
  EXPECT_EQ(socket->State(), SocketControl::kClosed);
}

TEST(TcpSocketControlTest, ConnectWhileOpenRaises40020AndSendWhenClosedRaises40006) {
  ScriptedSmtpPeer peer([](PeerConnection& c) { c.WaitForClose(std::chrono::seconds(5)); });
  TcpSocketControl socket;
  EXPECT_RUNTIME_ERROR(socket.SendData("x"), SocketControl::kErrWrongState);
  socket.Connect("127.0.0.1", peer.port());
  EXPECT_RUNTIME_ERROR(socket.Connect("127.0.0.1", peer.port()),
                       SocketControl::kErrInvalidOperation);
  socket.Close();
}

TEST(TcpSocketControlTest, PeerCloseLeavesState8AndTheDataReadable) {
  ScriptedSmtpPeer peer([](PeerConnection& c) { c.Send("last words\r\n"); });
  auto socket = std::make_shared<TcpSocketControl>();
  socket->Connect("127.0.0.1", peer.port());
  ASSERT_TRUE(PumpUntil([&] { return socket->State() == SocketControl::kPeerClosing; }));
  std::string data;
  socket->GetData(data);
  EXPECT_EQ(data, "last words\r\n");
  // Nothing more can arrive: the pump sleeps instead of reporting the closed stream again.
  EXPECT_EQ(PumpEvents(1), 0);
}

TEST(TcpSocketControlTest, RefusedConnectionRaisesErrorByNameWithSevenArguments) {
  int port;
  {
    ScriptedSmtpPeer peer;
    port = peer.port();
  }
  auto socket = std::make_shared<TcpSocketControl>();
  std::vector<Variant> args;
  socket->Advise("Error", [&](std::vector<Variant>& a) { args = a; });
  socket->Connect("127.0.0.1", port);
  ASSERT_TRUE(PumpUntil([&] { return !args.empty(); }));
  ASSERT_EQ(args.size(), 7u);
  EXPECT_EQ(args[0].ToLong(), SocketControl::kErrConnectionRefused);
  EXPECT_EQ(args[2].ToLong(), SocketScode(SocketControl::kErrConnectionRefused));
  EXPECT_EQ(args[3].ToString(), "Winsock");
  EXPECT_EQ(socket->State(), SocketControl::kError);
  socket->Close();
  EXPECT_EQ(socket->State(), SocketControl::kClosed);
}

TEST(TcpSocketControlTest, UnknownHostRaisesHostNotFound) {
  auto socket = std::make_shared<TcpSocketControl>();
  int16_t number = 0;
  socket->OnError([&](int16_t n, const std::string&, int32_t, const std::string&,
                      const std::string&, int32_t, bool&) { number = n; });
  socket->Connect("no-such-host.invalid", 25);
  ASSERT_TRUE(PumpUntil([&] { return number != 0; }));
  EXPECT_EQ(number, SocketControl::kErrHostNotFound);
}

TEST(TcpSocketControlTest, ByNameMembersAreReachable) {
  ObjectPtr socket = CreateObject("TcpSocketControl");
  EXPECT_EQ(socket->Invoke("State", CallKind::kGet).ToLong(), 0);
  socket->Invoke("ConnectTimeout", CallKind::kPut, {Variant(int32_t{7})});
  EXPECT_EQ(socket->Invoke("ConnectTimeout", CallKind::kGet).ToLong(), 7);
  ObjectPtr tls = CreateObject("TlsSocketControl");
  EXPECT_TRUE(tls->Invoke("VerifyPeer", CallKind::kGet).ToBool());
  tls->Invoke("CAFile", CallKind::kPut, {Variant("/tmp/ca.pem")});
  EXPECT_EQ(tls->Invoke("CAFile", CallKind::kGet).ToString(), "/tmp/ca.pem");
}

TEST(TlsSocketControlTest, HandshakeThatNeverCompletesFailsAtTheConnectDeadline) {
  ScriptedSmtpPeer peer([](PeerConnection& c) { c.WaitForClose(std::chrono::seconds(5)); });
  auto socket = std::make_shared<TlsSocketControl>();
  socket->ConnectTimeout(1);
  auto smtp = std::make_shared<ardESMTP>();
  smtp->WS(socket);
  ForwardEvents(socket, smtp);
  smtp->MailServer("127.0.0.1");
  smtp->Port(peer.port());
  smtp->CommandTimeout(1);
  smtp->AddRecipient("r@x");
  smtp->Send();
  EXPECT_EQ(smtp->rc(), 999);
  EXPECT_EQ(smtp->WinsockErrorNumber(), SocketControl::kErrTimedOut);
}

TEST(TlsSocketControlTest, PlainTextServerFailsTheHandshake) {
  ScriptedSmtpPeer peer([](PeerConnection& c) {
    c.Send("220 not TLS at all\r\n");
    c.WaitForClose(std::chrono::seconds(5));
  });
  auto socket = std::make_shared<TlsSocketControl>();
  auto smtp = std::make_shared<ardESMTP>();
  smtp->WS(socket);
  ForwardEvents(socket, smtp);
  smtp->MailServer("127.0.0.1");
  smtp->Port(peer.port());
  smtp->CommandTimeout(1);
  smtp->AddRecipient("r@x");
  smtp->Send();
  EXPECT_EQ(smtp->rc(), 999);
  EXPECT_EQ(smtp->WinsockErrorNumber(), SocketControl::kErrSecurity);
}

TEST(EventPumpTest, DoEventsWithNoSocketsReturnsNothingDispatched) {
  EXPECT_EQ(DoEvents(), 0);
  EXPECT_EQ(PumpEvents(0), 0);
}

}  // namespace
}  // namespace quillo
