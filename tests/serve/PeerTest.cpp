// Connections of mail servers: every request is answered, in order, however it is cut and however
// slowly it comes, and nobody holds up another.
#include "serve/socket/Peer.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/serve/WorkerFixture.h"

namespace Tessel::Serve {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::StartsWith;

// Memory that this process has, in bytes.
std::size_t s_memory() {
  std::size_t size = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

class PeerTest : public WorkerFixture {
 protected:
  void SetUp() override {
    Rows rows = {{"big@d.example", members(450, std::string(50, 'm'))}};
    for (int i = 0; i < 100; ++i) rows.emplace_back(name(i), "x" + name(i));
    serve(rows);
  }

  // `count` members whose names begin with `name`.
  static std::string members(int count, const std::string& name) {
    std::string all;
    for (int i = 0; i < count; ++i) all += name + std::to_string(i) + "@d.example,";
    all.pop_back();
    return all;
  }
  static std::string name(int i) { return "a" + std::to_string(i % 100) + "@d.example"; }
  static std::string request(int i) { return framed("alias " + name(i)); }
  static std::string answer(int i) { return "OK x" + name(i); }
};

TEST_F(PeerTest, ManyRequestsAtOnceAreAnsweredInTheirOrder) {
  const auto client = connect();
  std::string requests;
  for (int i = 0; i < 3000; ++i) requests += request(i);
  client->send(requests);
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(client->reply(), answer(i)) << i;
  EXPECT_EQ(client->ask("alias nobody@d.example"), "NOTFOUND ");
}

TEST_F(PeerTest, ARequestMayBeCutAnywhere) {
  const auto client = connect();
  const std::string both = request(1) + request(2);
  for (std::size_t cut = 1; cut < both.size(); ++cut) {
    client->send(std::string_view(both).substr(0, cut));
    client->waitUntilRead();
    client->send(std::string_view(both).substr(cut));
    ASSERT_EQ(client->reply(), answer(1)) << cut;
    ASSERT_EQ(client->reply(), answer(2)) << cut;
  }
}

TEST_F(PeerTest, ARequestMayComeByteByByte) {
  const auto client = connect();
  for (const char c : request(1)) {
    client->send({&c, 1});
    client->waitUntilRead();
  }
  EXPECT_EQ(client->reply(), answer(1));
}

TEST_F(PeerTest, WhatIsNoFrameIsRefusedAndEndsTheConnection) {
  const std::vector<std::string> frames = {
      "x", "alias a1@d.example\n", ":", "-1:,", " 1:a,", "01:a,", "3:abcd", "GET / HTTP/1.1\r\n"};
  for (const std::string& frame : frames) {
    const auto client = connect();
    client->send(request(1) + frame + request(2));
    EXPECT_EQ(client->reply(), answer(1)) << frame;
    EXPECT_EQ(client->reply(), "PERM this is not a netstring") << frame;
    EXPECT_TRUE(client->isAtEnd()) << frame;
  }
  EXPECT_TRUE(counts("malformed_requests_total " + std::to_string(frames.size())));
}

TEST_F(PeerTest, ARequestMayHaveAnyBytes) {
  const auto client = connect();
  EXPECT_EQ(client->ask(""), "PERM a request is MAP, blank, KEY");
  EXPECT_EQ(client->ask(std::string("alias a\0b\n\xff", 11)), "NOTFOUND ");
  EXPECT_EQ(client->ask("alias " + name(1)), answer(1));
}

TEST_F(PeerTest, ARequestMayBeAsLongAsTheLimitAndNoLonger) {
  m_settings.maxRequest = 5000;
  const auto client = connect();
  EXPECT_EQ(client->ask("alias " + std::string(4994, 'x')), "NOTFOUND ");
  client->send("5001:");
  EXPECT_EQ(client->reply(), "PERM the request is too long");
  EXPECT_TRUE(client->isAtEnd());
}

TEST_F(PeerTest, LinesAreAnsweredByLines) {
  const auto client = connect(Protocol::Lines);
  client->send("alias " + name(1) + "\nalias " + name(2) + "\r\nalias nobody@d\n\nalias ");
  EXPECT_EQ(client->line(), answer(1));
  EXPECT_EQ(client->line(), answer(2));
  EXPECT_EQ(client->line(), "NOTFOUND ");
  EXPECT_EQ(client->line(), "PERM a request is MAP, blank, KEY");
  client->send(name(3));
  client->waitUntilRead();
  client->send("\n");
  EXPECT_EQ(client->line(), answer(3));
}

TEST_F(PeerTest, PoliciesAreAnsweredByActionsInOrderAndTheConnectionStays) {
  const std::string lines = "request=smtpd_access_policy\nprotocol_state=RCPT\nrecipient=";
  publishRows(*tables().add("mask"), {});
  publishRows(*tables().add("rules"), {{"alias " + name(1), "authenticated\t\t\t"}});
  const auto client = connect(Protocol::Policy);
  for (int i = 0; i < 2; ++i) {
    client->send(lines + name(1) + "\n\n" + lines + name(2) + "\n\n" + lines + name(1));
    EXPECT_EQ(client->line(), "action=REJECT 5.7.1 only some people may write to " + name(1));
    EXPECT_EQ(client->line(), "");
    EXPECT_EQ(client->line(), "action=DUNNO");
    EXPECT_EQ(client->line(), "");
    client->waitUntilRead();
    client->send("\nsasl_username=ann\n\n");
    EXPECT_EQ(client->line(), "action=DUNNO");
    EXPECT_EQ(client->line(), "");
  }
}

TEST_F(PeerTest, APolicyThatTakesLongDelaysNobodyElseAndIsKept) {
  std::string members = "ann@far.example";
  for (int i = 0; i < 5000; ++i) members += ",m" + std::to_string(i) + "@far.example";
  serve({{"list@d.example", members}, {name(1), "x@d.example"}});
  publishRows(*tables().add("mask"), {});
  publishRows(*tables().add("rules"), {{"alias list@d.example", "members\t\t\t"}});
  const auto ask = [](Client& client, const std::string& login, const std::string& recipient) {
    client.send("request=smtpd_access_policy\nrecipient=" + recipient + "\nsasl_username=" + login +
                "\n\n");
  };
  const auto client = connect(Protocol::Policy);
  const auto other = connect(Protocol::Policy);
  for (int i = 0; i < 2; ++i) {
    for (const auto& [login, action] :
         {std::pair("ann@far.example", "action=DUNNO"),
          std::pair("eve@far.example",
                    "action=REJECT 5.7.1 only some people may write to list@d.example")}) {
      ask(*client, login, "list@d.example");
      ask(*other, login, name(1));
      EXPECT_EQ(other->line() + other->line(), "action=DUNNO");
      EXPECT_EQ(client->line() + client->line(), action);
    }
  }
  EXPECT_TRUE(counts("cache_hits_total 4"));
  EXPECT_TRUE(counts("requests_total{map=\"policy\",result=\"refused\"} 2"));
}

TEST_F(PeerTest, WhatIsNoPolicyRequestMakesMailWaitAndEndsTheConnection) {
  m_settings.maxRequest = 5000;
  const std::vector<std::pair<std::string, std::string>> wrong = {
      {"QUIT\n", "this is not a policy request"},
      {std::string(5000, 'x'), "the request is too long"}};
  for (const auto& [sent, why] : wrong) {
    const auto client = connect(Protocol::Policy);
    client->send(sent);
    EXPECT_EQ(client->line(), "action=DEFER_IF_PERMIT 4.3.0 " + why);
    EXPECT_EQ(client->line(), "");
    EXPECT_TRUE(client->isAtEnd());
  }
}

TEST_F(PeerTest, ALineMayBeAsLongAsTheLimitAndNoLonger) {
  m_settings.maxRequest = 5000;
  const auto client = connect(Protocol::Lines);
  client->send("alias " + std::string(4994, 'x') + "\n");
  EXPECT_EQ(client->line(), "NOTFOUND ");
  // It has no end, so nothing else can tell.
  client->send(std::string(5001, 'x'));
  EXPECT_EQ(client->line(), "PERM the request is too long");
  EXPECT_TRUE(client->isAtEnd());
}

TEST_F(PeerTest, AMailServerThatSendsNoMoreGetsItsReplies) {
  const auto client = connect();
  std::string requests;
  for (int i = 0; i < 500; ++i) requests += request(i) + framed("alias big@d.example");
  client->send(requests);
  client->endSending();
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(client->reply(), answer(i)) << i;
    ASSERT_GT(client->reply().size(), 20000U) << i;
  }
  EXPECT_TRUE(client->isAtEnd());
}

TEST_F(PeerTest, AMailServerThatTakesNoRepliesCostsLittleMemoryAndHoldsUpNobody) {
  const auto slow = connect();
  const auto other = connect();
  EXPECT_EQ(other->ask("alias " + name(0)), answer(0));
  const std::string big = slow->ask("alias big@d.example");
  const std::size_t before = s_memory();
  const std::string request = framed("alias big@d.example");
  // 100000 requests, whose replies would be gigabytes.
  std::string requests;
  for (int i = 0; i < 100000; ++i) requests += request;
  std::size_t sent = 0;
  for (int quiet = 0; quiet < 50;) {
    const std::size_t more = slow->sendSome(std::string_view(requests).substr(sent));
    sent += more;
    quiet = more == 0 ? quiet + 1 : 0;
    EXPECT_EQ(other->ask("alias " + name(1)), answer(1));
  }
  EXPECT_LT(sent, requests.size() / 2);
  EXPECT_LT(s_memory() - std::min(before, s_memory()), 64U << 20U);
  // None of them is lost, the one that was cut off included.
  for (std::size_t i = 0; i < sent / request.size(); ++i) ASSERT_TRUE(slow->reply() == big) << i;
  if (sent % request.size() != 0) {
    slow->send(request.substr(sent % request.size()));
    EXPECT_TRUE(slow->reply() == big);
  }
  EXPECT_EQ(slow->ask("alias " + name(2)), answer(2));
}

TEST_F(PeerTest, AMailServerThatGoesAwayIsForgotten) {
  for (int i = 0; i < 20; ++i) {
    const auto client = connect();
    std::string requests;
    for (int n = 0; n < 100; ++n) requests += framed("alias big@d.example");
    client->send(requests);
  }
  EXPECT_TRUE(waitFor([this] { return m_closed == 20; }));
  EXPECT_EQ(worker().connections(), 0U);
  EXPECT_TRUE(counts("connections 0"));
}

TEST_F(PeerTest, HalfARequestAndRepliesThatAreNotTakenHaveTheTimeOfARequest) {
  m_settings.requestTimeout = milliseconds(50);
  m_settings.idleTimeout = hours(1);
  const auto half = connect();
  const auto slow = connect();
  const auto trickling = connect();
  const auto idle = connect();
  EXPECT_EQ(idle->ask("alias " + name(1)), answer(1));
  half->send("20:alias");
  trickling->send("60000:");
  std::string requests;
  for (int i = 0; i < 1000; ++i) requests += framed("alias big@d.example");
  static_cast<void>(slow->sendSome(requests));
  // More bytes of a request do not make its time longer.
  EXPECT_TRUE(waitFor([&] {
    static_cast<void>(trickling->sendSome("x"));
    return m_closed == 3;
  }));
  EXPECT_TRUE(half->isAtEnd());
  EXPECT_TRUE(counts("timeouts_total 3"));
  EXPECT_EQ(idle->ask("alias " + name(1)), answer(1));
}

TEST_F(PeerTest, TheFirstRequestHasTheTimeOfARequest) {
  m_settings.requestTimeout = milliseconds(50);
  m_settings.idleTimeout = hours(1);
  const auto silent = connect();
  EXPECT_TRUE(silent->isAtEnd());
  EXPECT_TRUE(counts("timeouts_total 1"));
}

TEST_F(PeerTest, WhoReadsRepliesTooSlowlyIsLateInSpiteOfTheParts) {
  m_settings.requestTimeout = milliseconds(300);
  const auto slow = connect();
  std::string requests;
  for (int i = 0; i < 200; ++i) requests += framed("alias big@d.example");
  slow->send(requests);
  // Some bytes every few milliseconds: far too few, but never none for long.
  EXPECT_TRUE(waitFor([&] {
    slow->readSome(100);
    return m_closed == 1;
  }));
}

TEST_F(PeerTest, TheConnectionThatWasNotUsedForLongestMakesRoom) {
  const auto first = connect();
  const auto second = connect();
  const auto third = connect();
  for (Client* const client : {second.get(), third.get(), first.get()}) {
    EXPECT_EQ(client->ask("alias " + name(1)), answer(1));
  }
  third->send("20:half a request");
  const auto added = connect(Protocol::Netstrings, true);
  EXPECT_EQ(added->ask("alias " + name(2)), answer(2));
  EXPECT_TRUE(second->isAtEnd());
  EXPECT_EQ(first->ask("alias " + name(2)), answer(2));
  EXPECT_TRUE(counts("connections_dropped_total 1"));
  const auto another = connect(Protocol::Netstrings, true);
  EXPECT_EQ(another->ask("alias " + name(2)), answer(2));
  EXPECT_TRUE(third->isAtEnd());
  EXPECT_EQ(worker().connections(), 3U);
}

TEST_F(PeerTest, AFewRequestsOfOneAreAnsweredAtATime) {
  Lookup lookup(m_settings, tables(), m_metrics, m_log);
  const int events = epoll_create1(EPOLL_CLOEXEC);
  Peer::Shared shared{m_settings, lookup, m_metrics, events, {}, {}, Clock::now(), {}};
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  Client client(ends[1]);
  Peer peer(ends[0], Protocol::Netstrings, shared, [] {});
  peer.start();
  std::string requests;
  for (int i = 0; i < 100; ++i) requests += request(i);
  client.send(requests);
  peer.proceed(EPOLLIN);
  int answered = 0;
  while (!shared.queue.empty()) {
    EXPECT_EQ(shared.queue.front(), &peer);
    EXPECT_EQ(shared.queue.size(), 1U);
    shared.queue.pop_front();
    const std::size_t before = client.available();
    EXPECT_LE(before, 16 * framed(answer(10)).size());
    for (std::size_t left = before; left > 0; ++answered) {
      const std::string reply = client.reply();
      EXPECT_EQ(reply, answer(answered));
      left -= std::min(left, framed(reply).size());
    }
    peer.goOn();
  }
  for (; answered < 100; ++answered) EXPECT_EQ(client.reply(), answer(answered));
  close(events);
}

TEST_F(PeerTest, AReplyThatTakesLongComesInItsTurnAndHoldsUpNobody) {
  serve({{"huge@d.example", members(20000, "member")}, {"a@d.example", "b@d.example"}});
  const auto patient = connect();
  const auto other = connect();
  patient->send(framed("alias a@d.example") + framed("alias huge@d.example") +
                framed("alias a@d.example") + framed("alias huge+tag@d.example"));
  EXPECT_EQ(patient->reply(), "OK b@d.example");
  int answered = 0;
  while (patient->available() == 0) {
    ASSERT_EQ(other->ask("alias a@d.example"), "OK b@d.example");
    ++answered;
  }
  EXPECT_GT(answered, 10);
  EXPECT_THAT(patient->reply(), StartsWith("OK tslpage"));
  EXPECT_EQ(patient->reply(), "OK b@d.example");
  EXPECT_THAT(patient->reply(), testing::HasSubstr("+tag@d.example,tslpage"));
}

TEST_F(PeerTest, TheTimeOfAReplyThatTakesLongBeginsWithItsRequest) {
  serve({{"huge@d.example", members(20000, "member")}});
  m_background.post([] { std::this_thread::sleep_for(milliseconds(101)); });
  EXPECT_THAT(connect()->ask("alias huge@d.example"), StartsWith("OK tslpage"));
  EXPECT_TRUE(counts("request_seconds_bucket{le=\"0.1\"} 0"));
  EXPECT_TRUE(counts("request_seconds_count 1"));
}

TEST_F(PeerTest, WhoGoesAwayBeforeAReplyThatTakesLongIsForgotten) {
  serve({{"huge@d.example", members(20000, "member")}});
  connect()->send(framed("alias huge@d.example"));
  EXPECT_TRUE(waitFor([this] { return m_closed == 1; }));
  const auto next = connect();
  EXPECT_THAT(next->ask("alias huge@d.example"), StartsWith("OK tslpage"));
}

TEST_F(PeerTest, WhyAConnectionEndsIsReadWhateverWasSentBehind) {
  m_settings.maxRequest = 5000;
  const auto client = connect();
  std::string request = "1000000:" + std::string(1000000, 'x');
  static_cast<void>(client->sendSome(request));
  EXPECT_EQ(client->reply(), "PERM the request is too long");
}

TEST_F(PeerTest, WhatWasSentBehindARefusalIsReadAlsoFromWhoSendsNoMore) {
  Lookup lookup(m_settings, tables(), m_metrics, m_log);
  const int events = epoll_create1(EPOLL_CLOEXEC);
  Peer::Shared shared{m_settings, lookup, m_metrics, events, {}, {}, Clock::now(), {}};
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  Client client(ends[1]);
  Peer peer(ends[0], Protocol::Netstrings, shared, [] {});
  peer.start();
  client.send("x");
  peer.proceed(EPOLLIN);
  client.send(request(1));
  client.endSending();
  epoll_event event{};
  while (epoll_wait(events, &event, 1, 0) == 1) peer.proceed(event.events);
  EXPECT_FALSE(peer.isOpen());
  EXPECT_EQ(client.reply(), "PERM this is not a netstring");
  // Not ECONNRESET, with which a reply may be lost on its way.
  char byte = 0;
  EXPECT_EQ(recv(ends[1], &byte, 1, 0), 0);
  close(events);
}

TEST_F(PeerTest, BetweenRequestsThereIsTheTimeOfTheIdle) {
  m_settings.requestTimeout = hours(1);
  m_settings.idleTimeout = milliseconds(50);
  const auto half = connect();
  const auto idle = connect();
  const auto used = connect();
  half->send(request(1).substr(0, 9));
  EXPECT_EQ(used->ask("alias " + name(1)), answer(1));
  EXPECT_TRUE(waitFor([this] { return m_closed == 2; }));
  EXPECT_TRUE(idle->isAtEnd());
  EXPECT_TRUE(used->isAtEnd());
  half->send(request(1).substr(9));
  EXPECT_EQ(half->reply(), answer(1));
}

TEST_F(PeerTest, AnEndAnswersAllThatHasArrived) {
  const auto idle = connect();
  const auto fresh = connect();
  const auto half = connect();
  const auto busy = connect();
  EXPECT_EQ(idle->ask("alias " + name(1)), answer(1));
  std::string requests;
  for (int i = 0; i < 4000; ++i) requests += request(i);
  half->send(request(1) + request(2).substr(0, 5));
  EXPECT_EQ(half->reply(), answer(1));
  busy->send(framed("alias big@d.example") + requests);
  worker().drain();
  // The first request of a new connection is waited for, and the rest of one, but not for long.
  fresh->send(request(3));
  half->send(request(2).substr(5));
  EXPECT_TRUE(idle->isAtEnd());
  EXPECT_EQ(fresh->reply(), answer(3));
  EXPECT_TRUE(fresh->isAtEnd());
  EXPECT_EQ(half->reply(), answer(2));
  EXPECT_TRUE(half->isAtEnd());
  EXPECT_GT(busy->reply().size(), 20000U);
  for (int i = 0; i < 4000; ++i) ASSERT_EQ(busy->reply(), answer(i)) << i;
  EXPECT_TRUE(busy->isAtEnd());
  EXPECT_TRUE(waitFor([this] { return m_closed == 4; }));
}

TEST_F(PeerTest, AnEndAnswersMoreThanIsReadAtOnce) {
  // 32 bytes, so that none is cut where the room for reading ends.
  const std::string request = framed("alias 01234567890@no.example");
  ASSERT_EQ(request.size() % 32, 0U);
  const auto client = connect();
  EXPECT_EQ(client->ask("alias nobody@d"), "NOTFOUND ");
  std::unique_lock hold(m_hold);
  static_cast<void>(connect());
  ASSERT_TRUE(waitFor([this] { return m_closing == 1; }));
  std::string requests;
  for (int i = 0; i < 5000; ++i) requests += request;
  client->send(requests);
  worker().drain();
  hold.unlock();
  for (int i = 0; i < 5000; ++i) ASSERT_EQ(client->reply(), "NOTFOUND ") << i;
  EXPECT_TRUE(client->isAtEnd());
}

TEST_F(PeerTest, AnEndWaitsForMailServersThatAreSilentForAMomentOnly) {
  const auto half = connect();
  const auto deaf = connect();
  half->send(request(1).substr(0, 9));
  std::string requests;
  for (int i = 0; i < 200; ++i) requests += framed("alias big@d.example");
  deaf->send(requests);
  EXPECT_GT(deaf->reply().size(), 20000U);
  const Clock::time_point start = Clock::now();
  worker().drain();
  EXPECT_TRUE(waitFor([this] { return m_closed == 2; }));
  EXPECT_GE(Clock::now() - start, milliseconds(200));
  EXPECT_LT(Clock::now() - start, milliseconds(2000));
}

TEST_F(PeerTest, AnEndSendsRepliesThatWereNotTakenYet) {
  const auto slow = connect();
  std::string requests;
  for (int i = 0; i < 200; ++i) requests += framed("alias big@d.example");
  slow->send(requests);
  worker().drain();
  for (int i = 0; i < 200; ++i) ASSERT_GT(slow->reply().size(), 20000U) << i;
  EXPECT_TRUE(slow->isAtEnd());
}

}  // namespace
}  // namespace Tessel::Serve
