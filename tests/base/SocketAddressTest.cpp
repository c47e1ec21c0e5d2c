// Tests of SocketAddress.
#include "base/SocketAddress.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/Exception.h"

namespace Tessel {
namespace {

TEST(SocketAddress, ADefaultOneIsNoAddress) {
  const SocketAddress got;
  EXPECT_EQ(got.family(), SocketAddress::Family::None);
  EXPECT_EQ(got.text(), "");
}

TEST(SocketAddress, HoldsAnIPv4Address) {
  const SocketAddress got = SocketAddress::ip("192.0.2.1", 3306);
  EXPECT_EQ(got.family(), SocketAddress::Family::IPv4);
  EXPECT_EQ(got.host(), "192.0.2.1");
  EXPECT_EQ(got.port(), 3306);
  EXPECT_EQ(got.text(), "192.0.2.1:3306");
}

TEST(SocketAddress, HoldsAnIPv6Address) {
  const SocketAddress got = SocketAddress::ip("2001:db8::1", 3306);
  EXPECT_EQ(got.family(), SocketAddress::Family::IPv6);
  EXPECT_EQ(got.text(), "[2001:db8::1]:3306");
}

TEST(SocketAddress, HoldsAUnixPath) {
  const SocketAddress got = SocketAddress::unixPath("/run/db.sock");
  EXPECT_EQ(got.family(), SocketAddress::Family::Unix);
  EXPECT_EQ(got.host(), "/run/db.sock");
  EXPECT_EQ(got.port(), 0);
  EXPECT_EQ(got.text(), "/run/db.sock");
}

TEST(SocketAddress, AHostNameIsRefused) {
  try {
    SocketAddress::ip("db.example.com", 3306);
    FAIL() << "accepted";
  } catch (const Exception& got) {
    EXPECT_EQ(got.context(), "SocketAddress::ip");
    EXPECT_EQ(got.code(), 4);
    EXPECT_EQ(got.stringParameter(), "Not a numeric IP address: db.example.com");
  }
}

TEST(SocketAddress, AnEmptyOrOverlongPathIsRefused) {
  EXPECT_THROW(SocketAddress::unixPath(""), Exception);
  EXPECT_NO_THROW(SocketAddress::unixPath(std::string(107, 'x')));
  EXPECT_THROW(SocketAddress::unixPath(std::string(108, 'x')), Exception);
}

TEST(SocketAddress, EqualityLooksAtEverything) {
  EXPECT_EQ(SocketAddress::ip("192.0.2.1", 1), SocketAddress::ip("192.0.2.1", 1));
  EXPECT_NE(SocketAddress::ip("192.0.2.1", 1), SocketAddress::ip("192.0.2.1", 2));
  EXPECT_NE(SocketAddress::ip("192.0.2.1", 1), SocketAddress::ip("192.0.2.2", 1));
}

TEST(SocketAddress, IsReadFromThePeerOfATcpSocket) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(bind(listener, generic, length), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  ASSERT_EQ(getsockname(listener, generic, &length), 0);
  const int client = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(connect(client, generic, length), 0);
  EXPECT_EQ(SocketAddress::peerOf(client), SocketAddress::ip("127.0.0.1", ntohs(address.sin_port)));
  close(client);
  close(listener);
}

TEST(SocketAddress, AnUnconnectedSocketHasNoPeer) {
  const int lonely = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_THROW(SocketAddress::peerOf(lonely), Exception);
  close(lonely);
}

}  // namespace
}  // namespace Tessel
