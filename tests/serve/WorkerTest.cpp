// The thread that has the connections: it takes them from any thread, reports that it lives, and
// leaves nothing behind.
#include "serve/socket/Worker.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/serve/WorkerFixture.h"

namespace Tessel::Serve {
namespace {

using WorkerTest = WorkerFixture;

TEST_F(WorkerTest, CountsItsConnections) {
  EXPECT_EQ(worker().connections(), 0U);
  auto first = connect();
  const auto second = connect(Protocol::Lines);
  EXPECT_EQ(worker().connections(), 2U);
  first.reset();
  EXPECT_TRUE(waitFor([this] { return worker().connections() == 1; }));
  EXPECT_EQ(m_closed, 1);
}

TEST_F(WorkerTest, ItsEndIsThatOfItsConnections) {
  serve({{"a@d", "b@d"}});
  const auto asked = connect();
  EXPECT_EQ(asked->ask("alias a@d"), "OK b@d");
  asked->send("100:half");
  m_worker.reset();
  EXPECT_TRUE(asked->isAtEnd());
  EXPECT_EQ(m_closed, 1);
  EXPECT_TRUE(counts("connections 0"));
}

TEST_F(WorkerTest, ConnectionsThatItHasJustGotEndWithItToo) {
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 50; ++i) clients.push_back(connect());
  m_worker.reset();
  for (const auto& client : clients) EXPECT_TRUE(client->isAtEnd());
}

TEST_F(WorkerTest, AWorkerWithoutConnectionsEndsAtOnceAlsoInADrain) {
  worker().drain();
  m_worker.reset();
  EXPECT_EQ(m_closed, 0);
}

TEST_F(WorkerTest, AShortageOfDescriptorsIsReported) {
  const auto start = [&settings = m_settings, &all = tables(), &metrics = m_metrics, &log = m_log,
                      &background = m_background] {
    const DescriptorShortage shortage;
    const Worker worker(settings, all, metrics, log, background, {});
  };
  EXPECT_THAT(start, testing::ThrowsMessage<std::system_error>(
                         "a worker's descriptor: Too many open files"));
}

TEST_F(WorkerTest, HandsOverAtItsEndWhatWasAskedFor) {
  m_settings.countUse = "used";
  serve({{"a@d", "b@d"}});
  EXPECT_EQ(connect()->ask("alias a@d"), "OK b@d");
  m_worker.reset();
  EXPECT_EQ(tables().takeAsked().size(), 1U);
}

TEST_F(WorkerTest, TellsThatItLives) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(waitFor([this] { return worker().isAlive(); }));
  }
}

TEST_F(WorkerTest, AnImageThatIsReplacedGoesThoughNobodyAsks) {
  serve({{"a@d", "b@d"}});
  const std::weak_ptr<const TableImage> image = tables().find("alias")->image();
  const auto client = connect();
  EXPECT_EQ(client->ask("alias a@d"), "OK b@d");
  serve({{"a@d", "c@d"}});
  EXPECT_TRUE(waitFor([&image] { return image.expired(); }));
}

TEST_F(WorkerTest, AnswersManyMailServersAtOnceWhileTheTableChanges) {
  serve({{"a@d", "b@d"}});
  static_cast<void>(worker());
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 40; ++i)
    clients.push_back(connect(i % 2 == 0 ? Protocol::Lines : Protocol::Netstrings));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 20; ++round) {
        for (std::size_t i = t; i < clients.size(); i += 4) {
          const bool isLine = i % 2 == 0;
          clients[i]->send(isLine ? "alias a@d\n" : framed("alias a@d"));
          const std::string reply = isLine ? clients[i]->line() : clients[i]->reply();
          if (reply != "OK b@d" && reply != "OK c@d") ++wrong;
        }
      }
    });
  }
  for (int i = 0; i < 50; ++i) serve({{"a@d", i % 2 == 0 ? "c@d" : "b@d"}});
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(worker().connections(), 40U);
}

}  // namespace
}  // namespace Tessel::Serve
