// Readers in threads and processes, and a writer: each reader sees whole transactions only.
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"
#include "cmf/Writer.h"

namespace Tessel::CMF {
namespace {

class ConcurrencyTest : public ConfigurationTest {};

constexpr int s_fewUsers = 200;
constexpr int s_manyUsers = 300;

// Changes between two states: 200 users of kind 1, and 300 users of kind 2.
void s_write(int rounds) {
  const std::vector<std::string> users = manyUsers(s_manyUsers);
  for (int round = 0; round < rounds; ++round) {
    const bool many = round % 2 == 0;
    Writer writer;
    for (int i = 0; i < s_manyUsers; ++i) {
      const std::string& user = users[static_cast<std::size_t>(i)];
      if (many || i < s_fewUsers) {
        writer.addUser("example.com", user, many ? MailUserShared : MailUserMailbox);
      } else {
        writer.removeUser("example.com", user);
      }
    }
    const std::string domain = "round" + std::to_string(round) + ".example";
    writer.addDomain(domain);
    writer.removeDomain("round" + std::to_string(round - 1) + ".example");
    writer.commit();
  }
}

// True when the domain is seen in one of the two states, whole.
bool s_readsOneState() {
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  const RefApsGwServer server = cache->find("example.com");
  if (server.isNull()) return false;
  const UserQuery query(server->domainId());
  const bool many = query.size() == s_manyUsers;
  if (!many && query.size() != s_fewUsers) return false;
  int count = 0;
  for (const __aps_mail_user& user : query) {
    if (user.kind != (many ? MailUserShared : MailUserMailbox)) return false;
    ++count;
  }
  return count == query.size();
}

void s_readWhile(const std::atomic<bool>& writing) {
  int reads = 0;
  while (writing || reads < 10) {
    ASSERT_TRUE(s_readsOneState());
    ++reads;
  }
}

TEST_F(ConcurrencyTest, ReadersInThreadsSeeWholeTransactions) {
  addDomain("example.com", manyUsers(s_fewUsers));
  std::atomic<bool> writing{true};
  std::vector<std::thread> readers;
  readers.reserve(4);
  for (int i = 0; i < 4; ++i) readers.emplace_back([&] { s_readWhile(writing); });
  s_write(150);
  writing = false;
  for (std::thread& reader : readers) reader.join();
}

TEST_F(ConcurrencyTest, ReadersInProcessesSeeWholeTransactions) {
  addDomain("example.com", manyUsers(s_fewUsers));
  std::vector<std::unique_ptr<Child>> readers;
  readers.reserve(3);
  for (int i = 0; i < 3; ++i) {
    readers.push_back(std::make_unique<Child>([] {
      for (int n = 0; n < 400; ++n) ASSERT_TRUE(s_readsOneState());
    }));
  }
  s_write(150);
  for (const auto& reader : readers) EXPECT_EQ(reader->wait(), 0);
}

TEST_F(ConcurrencyTest, ThreadsOpenOneConfigurationAtTheSameTime) {
  EXPECT_EQ(inChild([] { addDomain("example.com", manyUsers(s_fewUsers)); }), 0);
  const std::atomic<bool> writing{false};
  std::vector<std::thread> readers;
  readers.reserve(8);
  for (int i = 0; i < 8; ++i) {
    readers.emplace_back([&, i] {
      for (int n = 0; n < 20; ++n) {
        ASSERT_FALSE(RefApsGwServerCache::instance(i % 2 == 0)->find("example.com").isNull());
      }
      s_readWhile(writing);
    });
  }
  for (std::thread& reader : readers) reader.join();
}

TEST_F(ConcurrencyTest, ThreadsShareOneBody) {
  addDomain("example.com", manyUsers(s_fewUsers));
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([cache] {
      for (int n = 0; n < 200; ++n) {
        ASSERT_EQ(cache->find("EXAMPLE.COM")->domain(), "example.com");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// The C library's allocator works in the child of a process with threads. That of the address
// sanitizer may be left locked by a thread that the child does not have: the other builds run this.
#if !defined(__SANITIZE_ADDRESS__)
TEST_F(ConcurrencyTest, AProcessForksWhileOtherThreadsRead) {
  addDomain("example.com", manyUsers(s_fewUsers));
  std::atomic<bool> writing{true};
  std::vector<std::thread> readers;
  readers.reserve(2);
  for (int i = 0; i < 2; ++i) readers.emplace_back([&] { s_readWhile(writing); });
  for (int i = 0; i < 20; ++i) EXPECT_EQ(inChild([] { ASSERT_TRUE(s_readsOneState()); }), 0);
  writing = false;
  for (std::thread& reader : readers) reader.join();
}
#endif

}  // namespace
}  // namespace Tessel::CMF
