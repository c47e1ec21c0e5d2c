// Writer: adding, changing and removing, one transaction at a time.
#include "cmf/Writer.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"

namespace Tessel::CMF {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class WriterTest : public ConfigurationTest {
 protected:
  // Stores the record of the mail-user table of a domain behind the library's back.
  void putTable(std::uint32_t domainId, const TableRecord& table) {
    putRaw(path(), text(Key(domainId, s_mailUserTable)),
           std::string(reinterpret_cast<const char*>(&table), sizeof(table)));
  }
  void putCount(std::uint32_t domainId, std::int64_t count) {
    putTable(domainId, {count, sizeof(__aps_mail_user), 0});
  }
};

using UserResult = Writer::UserResult;

TEST_F(WriterTest, NothingIsSeenBeforeTheCommit) {
  addDomain("example.com", {});
  Writer writer;
  writer.addDomain("example.org");
  writer.addUser("example.com", "bob", MailUserMailbox);
  EXPECT_TRUE(usersOf("example.com").empty());
  EXPECT_TRUE(RefApsGwServerCache::instance(false)->find("example.org").isNull());
  writer.commit();
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
  EXPECT_FALSE(RefApsGwServerCache::instance(false)->find("example.org").isNull());
}

TEST_F(WriterTest, WithoutACommitNothingChanges) {
  addDomain("example.com", {"bob"});
  {
    Writer writer;
    writer.removeUser("example.com", "bob");
    writer.addDomain("example.org");
  }
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
  EXPECT_TRUE(RefApsGwServerCache::instance(false)->find("example.org").isNull());
}

TEST_F(WriterTest, AfterTheCommitItCanOnlyBeDestroyed) {
  Writer writer;
  writer.commit();
  EXPECT_THAT(failureOf([&] { writer.commit(); }), HasSubstr("The transaction has ended"));
  EXPECT_THAT(failureOf([&] { writer.addDomain("example.com"); }),
              HasSubstr("The transaction has ended"));
}

TEST_F(WriterTest, ADomainThatIsThereKeepsItsIdentifierAndSpelling) {
  Writer writer;
  const Writer::Domain first = writer.addDomain("Example.Com");
  EXPECT_TRUE(first.added);
  const Writer::Domain again = writer.addDomain("EXAMPLE.COM");
  EXPECT_FALSE(again.added);
  EXPECT_EQ(again.id, first.id);
  writer.commit();
  Writer later;
  EXPECT_FALSE(later.addDomain("example.com").added);
  EXPECT_EQ(RefApsGwServerCache::instance(false)->find("example.com")->domain(), "Example.Com");
}

TEST_F(WriterTest, IdentifiersAreNeverUsedAgain) {
  const std::uint32_t first = addDomain("a.example", {"bob"});
  EXPECT_GT(first, 0U);
  Writer writer;
  EXPECT_TRUE(writer.removeDomain("A.Example"));
  EXPECT_FALSE(writer.removeDomain("a.example"));
  const std::uint32_t second = writer.addDomain("a.example").id;
  EXPECT_GT(second, first);
  EXPECT_TRUE(writer.removeDomain("a.example"));
  writer.commit();
  const std::uint32_t third = addDomain("b.example", {});
  EXPECT_GT(third, second);
  // One that was given but not committed is free again.
  { EXPECT_EQ(Writer().addDomain("c.example").id, third + 1); }
  EXPECT_EQ(addDomain("c.example", {}), third + 1);
}

TEST_F(WriterTest, WhenTheIdentifiersAreUsedUpNoDomainIsAdded) {
  addDomain("example.com", {});
  MetaRecord meta{};
  std::copy_n(s_formatMagic, sizeof(s_formatMagic), meta.magic);
  meta.version = s_formatVersion;
  meta.lastDomainId = 0xfffffffeU;
  putRaw(path(), text(Key(0, 0)), std::string(reinterpret_cast<const char*>(&meta), sizeof(meta)));
  Writer writer;
  EXPECT_EQ(writer.addDomain("last.example").id, 0xffffffffU);
  EXPECT_THAT(failureOf([&] { writer.addDomain("more.example"); }), HasSubstr("used up"));
  EXPECT_FALSE(writer.addDomain("example.com").added);
  writer.addUser("last.example", "bob", MailUserMailbox);
  writer.commit();
  EXPECT_THAT(usersOf(0xffffffffU), ElementsAre("bob"));
}

TEST_F(WriterTest, RemovingADomainRemovesItsUsersAndNobodyElses) {
  addDomain("a.example", {"ann"});
  const std::uint32_t id = addDomain("b.example", manyUsers(2000));
  addDomain("c.example", {"carl"});
  Writer writer;
  EXPECT_TRUE(writer.removeDomain("b.example"));
  EXPECT_FALSE(writer.removeDomain("unknown.example"));
  writer.commit();
  EXPECT_TRUE(RefApsGwServerCache::instance(false)->find("b.example").isNull());
  EXPECT_THAT(failureOf([&] { usersOf(id); }), HasSubstr("no table"));
  EXPECT_THAT(usersOf("a.example"), ElementsAre("ann"));
  EXPECT_THAT(usersOf("c.example"), ElementsAre("carl"));
  EXPECT_TRUE(usersOf(addDomain("b.example", {})).empty());
}

TEST_F(WriterTest, AddingAUserSaysWhatItDid) {
  Writer writer;
  const std::uint32_t id = writer.addDomain("example.com").id;
  EXPECT_EQ(writer.addUser("example.com", "Bob", MailUserMailbox), UserResult::Added);
  EXPECT_EQ(writer.addUser("EXAMPLE.com", "BOB", MailUserMailbox), UserResult::Unchanged);
  EXPECT_EQ(writer.addUser("example.com", "bob", MailUserShared), UserResult::Changed);
  writer.commit();
  {
    Writer later;
    EXPECT_EQ(later.addUser("example.com", "bob", MailUserDisabled), UserResult::Changed);
    later.commit();
  }
  const UserQuery query(id);
  ASSERT_EQ(query.size(), 1);
  EXPECT_STREQ(query.begin()->user_name, "Bob");
  EXPECT_EQ(query.begin()->kind, MailUserDisabled);
}

TEST_F(WriterTest, RemovingAUserSaysWhetherThereWasOne) {
  const std::uint32_t id = addDomain("example.com", {"ann", "Bob"});
  Writer writer;
  EXPECT_TRUE(writer.removeUser("example.com", "bob"));
  EXPECT_FALSE(writer.removeUser("example.com", "bob"));
  EXPECT_FALSE(writer.removeUser("example.com", "eve"));
  EXPECT_EQ(writer.addUser("example.com", "bob", MailUserMailbox), UserResult::Added);
  EXPECT_TRUE(writer.removeUser("example.com", "ann"));
  writer.commit();
  EXPECT_THAT(usersOf(id), ElementsAre("bob"));
}

TEST_F(WriterTest, ATablesRecordHoldsItsCountTheSizeOfARowAndAZero) {
  const std::uint32_t id = addDomain("example.com", {"ann", "bob"});
  const TableRecord want{2, sizeof(__aps_mail_user), 0};
  std::ifstream file(path() + "/data.mdb", std::ios::binary);
  const std::string data(std::istreambuf_iterator<char>(file), {});
  // The value stands right behind its key.
  EXPECT_NE(data.find(text(Key(id, s_mailUserTable)) +
                      std::string(reinterpret_cast<const char*>(&want), sizeof(want))),
            std::string::npos);
}

TEST_F(WriterTest, UsersOfAnUnknownDomainAreRefused) {
  Writer writer;
  writer.addDomain("example.com");
  EXPECT_THAT(failureOf([&] { writer.addUser("example.org", "bob", MailUserMailbox); }),
              HasSubstr("no domain example.org"));
  EXPECT_THAT(failureOf([&] { writer.removeUser("example.org", "bob"); }),
              HasSubstr("no domain example.org"));
  // A refused name does not end the transaction.
  writer.addUser("example.com", "bob", MailUserMailbox);
  writer.commit();
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
}

TEST_F(WriterTest, BadDomainsAreRefusedWithTheReason) {
  struct Case {
    std::string domain;
    std::string message;
  };
  const std::string nul("a\0b", 3);
  Writer writer;
  for (const Case& one :
       std::vector<Case>{{"", "Domain is empty"},
                         {std::string(256, 'x'),
                          "Domain \"" + std::string(255, 'x') + "\"... is longer than 255 octets"},
                         {"a@b", "Domain \"a@b\" holds an \"@\""},
                         {"a b", "Domain \"a b\" holds a blank"},
                         {"a\nb", "Domain \"a\nb\" holds a control character"},
                         {nul, "Domain \"" + nul + "\" holds a control character"},
                         {"a\x7f", "Domain \"a\x7f\" holds a control character"}}) {
    EXPECT_EQ(failureOf([&] { writer.addDomain(one.domain); }), one.message);
    EXPECT_EQ(failureOf([&] { writer.removeDomain(one.domain); }), one.message);
    EXPECT_EQ(failureOf([&] { writer.addUser(one.domain, "bob", MailUserMailbox); }), one.message);
  }
  EXPECT_TRUE(writer.addDomain(std::string(255, 'x')).added);
  writer.commit();
  const RefApsGwServer server = RefApsGwServerCache::instance(false)->find(std::string(255, 'X'));
  ASSERT_FALSE(server.isNull());
  EXPECT_EQ(server->domain(), std::string(255, 'x'));
}

TEST_F(WriterTest, BadUsersAreRefusedWithTheReason) {
  struct Case {
    std::string user;
    std::string message;
  };
  const std::string nul("a\0b", 3);
  Writer writer;
  writer.addDomain("example.com");
  for (const Case& one :
       std::vector<Case>{{"", "User name is empty"},
                         {std::string(65, 'x'),
                          "User name \"" + std::string(64, 'x') + "\"... is longer than 64 octets"},
                         {"a@b", "User name \"a@b\" holds an \"@\""},
                         {"a\tb", "User name \"a\tb\" holds a control character"},
                         {nul, "User name \"" + nul + "\" holds a control character"}}) {
    EXPECT_EQ(failureOf([&] { writer.addUser("example.com", one.user, MailUserMailbox); }),
              one.message);
    EXPECT_EQ(failureOf([&] { writer.removeUser("example.com", one.user); }), one.message);
  }
  EXPECT_EQ(writer.addUser("example.com", std::string(64, 'x'), MailUserMailbox),
            UserResult::Added);
  EXPECT_EQ(writer.addUser("example.com", "\"quoted user\"", MailUserMailbox), UserResult::Added);
  EXPECT_EQ(writer.addUser("example.com", "j\xc3\xb6rg", MailUserMailbox), UserResult::Added);
  writer.commit();
  EXPECT_THAT(usersOf("example.com"),
              ElementsAre("\"quoted user\"", "j\xc3\xb6rg", std::string(64, 'x')));
}

TEST_F(WriterTest, AnUnknownKindIsRefused) {
  Writer writer;
  writer.addDomain("example.com");
  for (const int kind : {-1, 3}) {
    EXPECT_THAT(
        failureOf([&] { writer.addUser("example.com", "bob", static_cast<MailUserKind>(kind)); }),
        HasSubstr("no kind " + std::to_string(kind)));
  }
}

TEST_F(WriterTest, AThreadHasOneWriterAtATime) {
  Writer writer;
  EXPECT_THAT(failureOf([] { const Writer second; }), HasSubstr("has a writer already"));
  writer.addDomain("example.com");
  writer.commit();
  Writer next;
  EXPECT_FALSE(next.addDomain("example.com").added);
}

TEST_F(WriterTest, WritersOfSeveralThreadsTakeTurns) {
  const std::uint32_t id = addDomain("example.com", {});
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([number] {
      for (int i = 0; i < 25; ++i) {
        Writer writer;
        writer.addUser("example.com", std::to_string(number * 100 + i), MailUserMailbox);
        writer.commit();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(UserQuery(id).size(), 100);
}

TEST_F(WriterTest, AWriterThatIsKilledLeavesTheStateBeforeItAndTheNextGoesOn) {
  EXPECT_EQ(inChild([] { addDomain("example.com", {"bob"}); }), 0);
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  const Signal writing;
  Child child([&] {
    Writer writer;
    writer.removeUser("example.com", "bob");
    for (const std::string& user : manyUsers(20000)) {
      writer.addUser("example.com", user, MailUserMailbox);
    }
    writer.addDomain("lost.example");
    writing.send();
    ::pause();
  });
  writing.await();
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
  child.kill();
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
  EXPECT_EQ(inChild([] {
              Writer writer;
              EXPECT_TRUE(writer.addDomain("lost.example").added);
              writer.addUser("example.com", "ann", MailUserMailbox);
              writer.commit();
            }),
            0);
  EXPECT_THAT(usersOf("example.com"), ElementsAre("ann", "bob"));
  EXPECT_FALSE(cache->find("lost.example").isNull());
}

TEST_F(WriterTest, AWriterWaitsForThatOfAnotherProcess) {
  addDomain("example.com", {});
  const Signal started;
  const Signal finish;
  Child child([&] {
    Writer writer;
    writer.addUser("example.com", "first", MailUserMailbox);
    started.send();
    finish.await();
    writer.commit();
  });
  started.await();
  std::thread second([] {
    Writer writer;
    // It sees what the other one committed.
    EXPECT_EQ(writer.addUser("example.com", "first", MailUserMailbox), UserResult::Unchanged);
    writer.commit();
  });
  finish.send();
  second.join();
  EXPECT_EQ(child.wait(), 0);
}

TEST_F(WriterTest, InAForkedChildAWriterCanOnlyBeDestroyed) {
  auto writer = std::make_unique<Writer>();
  writer->addDomain("example.com");
  EXPECT_EQ(inChild([&] {
              EXPECT_THAT(failureOf([&] { writer->addDomain("child.example"); }),
                          HasSubstr("before the fork"));
              EXPECT_THAT(failureOf([&] { writer->commit(); }), HasSubstr("before the fork"));
              writer.reset();
            }),
            0);
  writer->addUser("example.com", "bob", MailUserMailbox);
  writer->commit();
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
}

TEST_F(WriterTest, ADamagedTableIsAFailureOfTheWriter) {
  const std::uint32_t id = addDomain("example.com", {"bob"});
  putRaw(path(), text(Key(id, s_mailUserTable, "bob")), "short");
  {
    Writer writer;
    EXPECT_THAT(failureOf([&] { writer.addUser("example.com", "bob", MailUserShared); }),
                HasSubstr("damaged"));
  }
  putTable(id, {1, 8, 0});
  Writer writer;
  EXPECT_THAT(failureOf([&] { writer.addUser("example.com", "bob", MailUserShared); }),
              HasSubstr("damaged"));
}

// Users are counted from there: the largest and the least number would overflow.
TEST_F(WriterTest, ATableWithAnImpossibleCountIsAFailureOfTheWriter) {
  const std::uint32_t id = addDomain("example.com", {"bob"});
  for (const std::int64_t count :
       {std::int64_t{-1}, std::int64_t{1} << 31U, std::numeric_limits<std::int64_t>::max(),
        std::numeric_limits<std::int64_t>::min()}) {
    putCount(id, count);
    const auto failure = [](const auto& change) {
      return failureOf([&] {
        Writer writer;
        change(writer);
      });
    };
    EXPECT_THAT(failure([](Writer& w) { w.addUser("example.com", "ann", MailUserMailbox); }),
                HasSubstr("damaged"))
        << count;
    EXPECT_THAT(failure([](Writer& w) { w.removeUser("example.com", "bob"); }),
                HasSubstr("damaged"))
        << count;
  }
}

TEST_F(WriterTest, MoreUsersThanTheCountSaysCannotBeRemoved) {
  const std::uint32_t id = addDomain("example.com", {"ann", "bob"});
  putCount(id, 1);
  {
    Writer writer;
    EXPECT_TRUE(writer.removeUser("example.com", "ann"));
    EXPECT_TRUE(writer.removeUser("example.com", "bob"));
    EXPECT_THAT(failureOf([&] { writer.commit(); }), HasSubstr("damaged"));
  }
  // Nothing was stored: the one user that the table says it has is the first.
  EXPECT_THAT(usersOf("example.com"), ElementsAre("ann"));
}

TEST_F(WriterTest, AFileThatWasOverwrittenWhileItIsInUseIsNotWrittenToNorCalledEmpty) {
  addDomain("example.com", {"ann"});
  const std::string old = directory() + "/old.mdb";
  std::filesystem::copy_file(path() + "/data.mdb", old);
  addDomain("example.com", {"bob"});
  std::filesystem::copy_file(old, path() + "/data.mdb",
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_THAT(failureOf([] { const Writer writer; }), HasSubstr("was overwritten while"));
  // By the number of the last commit, LMDB takes the state before the first one for the newest.
  EXPECT_THAT(failureOf([] {
                static_cast<void>(RefApsGwServerCache::instance(false)->find("example.com"));
              }),
              HasSubstr("was overwritten while"));
  // Once nobody uses it any more it is as good as any other.
  RefApsGwServerCache::instance(true);
  addDomain("example.com", {"cleo"});
  EXPECT_THAT(usersOf("example.com"), ElementsAre("ann", "cleo"));
}

}  // namespace
}  // namespace Tessel::CMF
