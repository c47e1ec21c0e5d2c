// Asking a lookup service, and the messages when there is no reply.
#include "serve/socket/SocketmapClient.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "failure/Failure.h"
#include "serve/socket/ListenSocket.h"
#include "support/ScratchFile.h"

namespace Tessel::Serve {
namespace {

using Tool::ExitCode;

class SocketmapClientTest : public testing::Test {
 protected:
  ~SocketmapClientTest() override { close(m_peer); }

  // Takes the connection of the client, and sends `reply` whatever is asked.
  void answer(std::string_view reply) {
    if (m_peer == -1) m_peer = accept(m_server.descriptor(), nullptr, nullptr);
    EXPECT_EQ(send(m_peer, reply.data(), reply.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(reply.size()));
  }

  // What `call` fails with, and what to do.
  static std::string failureOf(ExitCode code, const std::function<void()>& call) {
    try {
      call();
    } catch (const Tool::Failure& failure) {
      EXPECT_EQ(failure.code(), code);
      return failure.subject() + ": " + failure.why() + "; " + failure.hint();
    }
    return "";
  }
  // What a request fails with whose reply is `reply`, or nothing.
  std::string failureAfter(std::string_view reply) {
    return failureOf(ExitCode::Unavailable, [&] {
      SocketmapClient client(m_address);
      answer(reply);
      shutdown(m_peer, SHUT_WR);
      static_cast<void>(client.ask("alias", "a@d"));
    });
  }
  [[nodiscard]] std::string unavailable(const std::string& why) const {
    return "the service at unix:" + m_address.path + ": " + why +
           "; see whether it runs and listens there, and who may connect";
  }

  Testing::ScratchFile m_scratch;
  const ListenAddress m_address = parseListenAddress("unix:" + m_scratch.directory() + "/map");
  ListenSocket m_server{m_address};
  int m_peer = -1;
};

TEST_F(SocketmapClientTest, GivesTheRepliesOfItsRequestsInTheirOrder) {
  SocketmapClient client(m_address);
  answer("6:OK b@d,9:NOTFO");
  EXPECT_EQ(client.ask("alias", "a@d"), "OK b@d");
  answer("UND ,");
  EXPECT_EQ(client.ask("domain", "d"), "NOTFOUND ");
  std::array<char, 100> bytes{};
  EXPECT_EQ(recv(m_peer, bytes.data(), bytes.size(), 0), 23);
  EXPECT_STREQ(bytes.data(), "9:alias a@d,8:domain d,");
}

TEST_F(SocketmapClientTest, SaysThatNobodyListens) {
  ListenAddress nobody = m_address;
  nobody.path += "x";
  EXPECT_EQ(failureOf(ExitCode::Unavailable, [&] { const SocketmapClient client(nobody); }),
            "the service at unix:" + nobody.path +
                ": No such file or directory; see whether it "
                "runs and listens there, and who may connect");
}

TEST_F(SocketmapClientTest, SaysThatThereIsNoWholeReply) {
  EXPECT_EQ(failureAfter("6:OK"), unavailable("it closed the connection"));
}

TEST_F(SocketmapClientTest, SaysThatAReplyIsNone) {
  EXPECT_EQ(failureAfter("HTTP/1.1 400 Bad Request"), unavailable("it does not speak socketmap"));
}

TEST_F(SocketmapClientTest, AsksOverTheNetworkToo) {
  for (const char* host : {"127.0.0.1", "[::1]"}) {
    const ListenSocket server(parseListenAddress("inet:" + std::string(host) + ":0"));
    const std::string name = server.name();
    SocketmapClient client(parseListenAddress("inet:" + name));
    const int peer = accept(server.descriptor(), nullptr, nullptr);
    EXPECT_EQ(send(peer, "2:OK,", 5, MSG_NOSIGNAL), 5) << name;
    EXPECT_EQ(client.ask("alias", "a@d"), "OK") << name;
    close(peer);
  }
}

TEST_F(SocketmapClientTest, RefusesTheLineProtocol) {
  ListenAddress lines = m_address;
  lines.protocol = Protocol::Lines;
  EXPECT_EQ(failureOf(ExitCode::Usage, [&] { const SocketmapClient client(lines); }),
            "--from: it is an address of another protocol; name a socket of the service that "
            "begins with unix: or inet:");
}

}  // namespace
}  // namespace Tessel::Serve
