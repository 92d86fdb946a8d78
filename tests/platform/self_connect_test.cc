// A TCP connection that opened onto itself is told apart from one that a
// server accepted.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/socket.h"

namespace quillo {
namespace {

sockaddr_in Loopback(in_port_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = port;
  return a;
}

in_port_t PortOf(int fd) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  return a.sin_port;
}

TEST(ConnectedToItself, ASocketConnectedToItsOwnPortIsFound) {
  // What a connect to a loopback port where nothing listens can come to
  // when the system picks that port as the local one.
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in any = Loopback(0);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
  sockaddr_in self = Loopback(PortOf(fd));
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&self), sizeof self), 0);
  EXPECT_TRUE(ConnectedToItself(fd));
  close(fd);
}

TEST(ConnectedToItself, AConnectionAServerAcceptedIsNot) {
  int server = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in any = Loopback(0);
  ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
  ASSERT_EQ(listen(server, 1), 0);
  int client = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in to = Loopback(PortOf(server));
  ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
  EXPECT_FALSE(ConnectedToItself(client));
  int unconnected = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_FALSE(ConnectedToItself(unconnected));
  close(unconnected);
  close(client);
  close(server);
}

}  // namespace
}  // namespace quillo
