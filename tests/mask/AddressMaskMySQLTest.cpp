// Tests of one address-mask table: its statements, its preload and its lookups.
#include "mask/AddressMaskMySQL.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "map/AddressMapMySQL.h"
#include "support/Caught.h"
#include "support/ExpectedLog.h"
#include "support/MapDatabase.h"

namespace Tessel {
namespace {

using Testing::caught;
using testing::ElementsAre;
using Testing::expectFacts;
using testing::IsEmpty;
using testing::SizeIs;

class AddressMaskMySQLOnServer : public Testing::MapDatabase {
 protected:
  void SetUp() override {
    MapDatabase::SetUp();
    m_store = std::make_unique<AddressMapDbMySQL>(false);
  }

  static void addMask(const std::string& privateText, const std::string& publicText) {
    sql("insert into ts_address_map.mask values( '" + privateText + "','" + publicText + "' )");
  }

  std::unique_ptr<AddressMaskDbMySQL> open(bool preload) {
    return std::make_unique<AddressMaskDbMySQL>(*m_store, preload, "");
  }

  static Rows rows() { return sql("select * from ts_address_map.mask order by private"); }

  std::unique_ptr<AddressMapDbMySQL> m_store;
};

TEST_F(AddressMaskMySQLOnServer, EveryOperationSendsItsStatement) {
  const auto table = open(false);
  const EmailAddress inner = address("p@d.example");
  const EmailAddress outer = address("q@e.example");
  std::map<EmailAddress, EmailAddress> entries;
  EXPECT_THAT(statementsOf([&] {
                table->queryAdd(inner, outer);
                EXPECT_EQ(table->queryPublicAddress(inner), outer);
                EXPECT_EQ(table->queryPrivateAddress(outer), inner);
                table->findByMaskedDomain("*", entries);
                table->findByMaskedDomain("d.example", entries);
                table->queryDelete(inner, outer);
                table->queryDelete("d.example");
                table->queryWildCards();
              }),
              ElementsAre("insert into mask (private, public ) values( 'p@d.example','q@e.example' "
                          ") on duplicate key update public=values( public )",
                          "select * from mask where private ='p@d.example'",
                          "select * from mask where public ='q@e.example'", "select * from mask",
                          "select * from mask where private like '%@d.example'",
                          "delete from mask where private='p@d.example' and "
                          "public='q@e.example'",
                          "delete from mask where private like '%@d.example'",
                          "select * from mask where private like '%*%' or public like '%*%'"));
  EXPECT_THAT(entries, ElementsAre(testing::Pair(inner, outer)));
}

TEST_F(AddressMaskMySQLOnServer, WithoutPreloadNothingIsAskedAndNothingFound) {
  addMask("p@d.example", "q@e.example");
  EXPECT_THAT(statementsOf([&] {
                const auto table = open(false);
                EXPECT_TRUE(table->findPublicAddress(address("p@d.example")).isNull());
                EXPECT_TRUE(table->findPrivateAddress(address("q@e.example")).isNull());
              }),
              IsEmpty());
}

TEST_F(AddressMaskMySQLOnServer, APreloadedTableAnswersWithoutAsking) {
  addMask("p@d.example", "q@e.example");
  addMask("*@inner.example", "*@outer.example");
  const auto table = open(true);
  EXPECT_THAT(
      statementsOf([&] {
        EXPECT_EQ(table->findPublicAddress(address("p@d.example")), address("q@e.example"));
        EXPECT_EQ(table->findPrivateAddress(address("q@e.example")), address("p@d.example"));
        EXPECT_EQ(table->findPublicAddress(address("L@inner.example")), address("L@outer.example"));
        EXPECT_EQ(table->findPrivateAddress(address("L@outer.example")),
                  address("L@inner.example"));
        EXPECT_TRUE(table->findPublicAddress(address("L@Inner.example")).isNull());
      }),
      IsEmpty());
}

TEST_F(AddressMaskMySQLOnServer, TheFirstOfTwoPrivateDomainsWins) {
  addMask("*@a2.example", "b*@b.example");
  addMask("*@a1.example", "*@b.example");
  EXPECT_EQ(open(true)->findPrivateAddress(address("x@b.example")), address("x@a1.example"));
}

TEST_F(AddressMaskMySQLOnServer, ATableLargerThanTheCacheIsAskedOnAMiss) {
  std::string values;
  for (int i = 0; i < 1100; ++i) {
    const std::string number = std::to_string(i);
    values += (i == 0 ? "( 'p" : ",( 'p") + number + "@d.example','q" + number + "@e.example' )";
  }
  sql("insert into ts_address_map.mask values " + values);
  const auto table = open(true);
  std::size_t asked = 0;
  for (int i = 0; i < 1100; ++i) {
    const std::string number = std::to_string(i);
    EXPECT_EQ(table->queryPublicAddress(address("p" + number + "@d.example")),
              address("q" + number + "@e.example"));
  }
  asked = statementsOf([&] {
            EXPECT_TRUE(table->findPublicAddress(address("unknown@d.example")).isNull());
            EXPECT_TRUE(table->findPrivateAddress(address("unknown@d.example")).isNull());
          }).size();
  // The full cache holds 1024 of 1100 rows, so both directions ask.
  EXPECT_EQ(asked, 2U);
}

TEST_F(AddressMaskMySQLOnServer, ATakenPublicAddressChangesTheOtherRow) {
  const auto table = open(false);
  table->queryAdd(address("p@d.example"), address("q@e.example"));
  table->queryAdd(address("p2@d.example"), address("q@e.example"));
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}}));
}

TEST_F(AddressMaskMySQLOnServer, AFailedPreloadIsWrapped) {
  sql("drop table ts_address_map.mask");
  const Exception got = caught([&] { open(true); });
  expectFacts(got, "queryEntries ", 4, "AddressMaskMySQL", 218, "Error reading mask");
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1146);
}

TEST_F(AddressMaskMySQLOnServer, FailedLookupsAreWrapped) {
  for (int i = 0; i < 7; ++i) {
    const std::string number = std::to_string(i);
    addMask("p" + number + "@d.example", "q" + number + "@e.example");
  }
  const auto table = open(true);
  for (int i = 7; i < 1100; ++i) {
    const std::string number = std::to_string(i);
    addMask("p" + number + "@d.example", "q" + number + "@e.example");
  }
  table->exportToFile("/dev/null");
  sql("drop table ts_address_map.mask");
  const EmailAddress unknown = address("unknown@d.example");
  const Exception forward = caught([&] { static_cast<void>(table->findPublicAddress(unknown)); });
  expectFacts(forward, "findPublicAddress", 4, "AddressMaskMySQL", 100);
  ASSERT_NE(forward.cause(), nullptr);
  EXPECT_EQ(forward.cause()->code(), 1146);
  const Exception reverse = caught([&] { static_cast<void>(table->findPrivateAddress(unknown)); });
  expectFacts(reverse, "findPrivateAddress", 4, "AddressMaskMySQL", 162,
              "m_entries = 7 / cached=1100");
  ASSERT_NE(reverse.cause(), nullptr);
  EXPECT_EQ(reverse.cause()->code(), 1146);
}

TEST_F(AddressMaskMySQLOnServer, ARowWithAnEmptyColumnIsLoggedAndCounted) {
  addMask("p@d.example", "");
  const auto table = open(true);
  const auto log = Testing::takeLog();
  ASSERT_THAT(log, SizeIs(1));
  EXPECT_EQ(log[0].code, 0x300002aU);
  EXPECT_EQ(log[0].text, " ");
}

TEST_F(AddressMaskMySQLOnServer, FilesThatCannotBeOpenedAreReported) {
  const auto table = open(false);
  expectFacts(caught([&] { table->exportToFile("/nonexistent/folder/file"); }),
              "AddressAliasMaskDb::exportToFile", 4, "AddressMaskMySQL", 425,
              "Could not open file");
  expectFacts(caught([&] { table->importFromFile("/nonexistent"); }),
              "AddressMaskDb::importFromFile", 4, "AddressMaskMySQL", 439, "Could not open file");
}

TEST_F(AddressMaskMySQLOnServer, ImportAddsPairsAndExportLeavesAnEmptyFile) {
  const std::string path =
      (std::filesystem::temp_directory_path() / ("tsl-mask-" + std::to_string(getpid()))).string();
  std::ofstream(path) << "p@d.example:q@e.example\nnothing\n\np2@d.example:q2@e.example";
  const auto table = open(false);
  table->importFromFile(path);
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}, {"p2@d.example", "q2@e.example"}}));
  table->exportToFile(path);
  EXPECT_EQ(std::filesystem::file_size(path), 0U);
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace Tessel
