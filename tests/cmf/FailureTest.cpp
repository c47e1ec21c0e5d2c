// Failures of the system in words: what happened, where, and what to do.
#include <sys/resource.h>

#include <csignal>
#include <string>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"
#include "cmf/Writer.h"

namespace Tessel::CMF {
namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;

class FailureTest : public ConfigurationTest {};

void s_addMany(Writer& writer, int count) {
  writer.addDomain("big.example");
  for (const std::string& user : manyUsers(count)) {
    writer.addUser("big.example", user, MailUserMailbox);
  }
}

TEST_F(FailureTest, AFullMapIsAFailureAndChangesNothing) {
  setVariable("TSL_CMF_MAP_MIB", "1");
  addDomain("example.com", {"bob"});
  {
    Writer writer;
    writer.addUser("example.com", "ann", MailUserMailbox);
    const std::string detail = failureOf([&] {
      s_addMany(writer, 50000);
      writer.commit();
    });
    EXPECT_THAT(detail, HasSubstr("set TSL_CMF_MAP_MIB higher"));
    EXPECT_THAT(detail, HasSubstr(path()));
    // The transaction is lost.
    const std::string ended = "The transaction has ended";
    EXPECT_THAT(failureOf([&] { writer.addUser("example.com", "eve", MailUserMailbox); }),
                HasSubstr(ended));
    EXPECT_THAT(failureOf([&] { writer.removeUser("example.com", "bob"); }), HasSubstr(ended));
    EXPECT_THAT(failureOf([&] { writer.addDomain("x.example"); }), HasSubstr(ended));
    EXPECT_THAT(failureOf([&] { writer.removeDomain("example.com"); }), HasSubstr(ended));
    EXPECT_THAT(failureOf([&] { writer.commit(); }), HasSubstr(ended));
    // The thread may write again even while the lost writer exists.
    Writer next;
    next.addUser("example.com", "carl", MailUserMailbox);
    next.commit();
  }
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob", "carl"));
  EXPECT_TRUE(RefApsGwServerCache::instance(false)->find("big.example").isNull());
}

TEST_F(FailureTest, AFullDiskIsAFailureAndChangesNothing) {
  EXPECT_EQ(inChild([] { addDomain("example.com", {"bob"}); }), 0);
  EXPECT_EQ(inChild([] {
              std::signal(SIGXFSZ, SIG_IGN);
              rlimit limit{};
              ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
              const rlimit small{rlim_t{512} * 1024, limit.rlim_max};
              ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
              const std::string detail = failureOf([] {
                Writer writer;
                s_addMany(writer, 50000);
                writer.commit();
              });
              EXPECT_THAT(detail,
                          AnyOf(HasSubstr("File too large"), HasSubstr("file system is full"),
                                HasSubstr("Input/output error")));
              EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
              // With room again, the same process goes on.
              ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
              addDomain("later.example", {"ann"});
            }),
            0);
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
  EXPECT_THAT(usersOf("later.example"), ElementsAre("ann"));
  EXPECT_TRUE(RefApsGwServerCache::instance(false)->find("big.example").isNull());
}

TEST_F(FailureTest, ADiskWithoutRoomForTheFilesIsAFailure) {
  EXPECT_EQ(inChild([this] {
              std::signal(SIGXFSZ, SIG_IGN);
              const rlimit none{0, 0};
              ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
              EXPECT_THAT(failureOf([] { const Writer writer; }),
                          HasSubstr(" in " + path() + ": File too large"));
            }),
            0);
  EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(false); }), HasSubstr("is empty"));
  addDomain("example.com", {"bob"});
  EXPECT_THAT(usersOf("example.com"), ElementsAre("bob"));
}

TEST_F(FailureTest, ATextWithControlCharactersIsShownEscapedInTheMessage) {
  setVariable("TSL_CMF_PATH", directory() + "/a\nb");
  try {
    RefApsGwServerCache::instance(false);
    FAIL() << "No Exception";
  } catch (const Exception& e) {
    EXPECT_EQ(e.context(), "CMF::Environment::open");
    EXPECT_THAT(e.what(), HasSubstr("/a\\x0ab"));
  }
}

}  // namespace
}  // namespace Tessel::CMF
