// Tests of the files of an alias table: what an import takes from a line, where it ends, and what
// an export leaves behind.
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "alias/AliasTable.h"
#include "support/Caught.h"
#include "support/ScratchFile.h"
#include "support/StatementHook.h"

namespace Tessel {
namespace {

using namespace std::string_literals;
using Testing::caught;
using testing::ElementsAre;
using Testing::expectFacts;
using testing::IsEmpty;
using testing::SizeIs;

// The most characters of a line that an import reads.
constexpr std::size_t s_longest = 16383;

class AddressAliasFiles : public Testing::AliasTable {
 protected:
  void import(const std::string& text) {
    m_file.write(text);
    m_table->importFromFile(m_file.path());
  }

  // A line of `size` characters: the alias "a@d.example" with many members, whose last one is
  // "last@e.example".
  static std::string longLine(std::size_t size) {
    const std::string end = ",last@e.example";
    std::string line = "a@d.example:m@e.example";
    for (int i = 0; line.size() + end.size() + 60 < size; ++i) {
      line += ",m" + std::to_string(i) + "@e.example";
    }
    return line + std::string(size - line.size() - end.size(), ' ') + end;
  }

  static void expectImportFailure(const Exception& got) {
    expectFacts(got, "AddressAliasDb::importFromFile", 4, "AddressAliasDbMySQL", 601,
                "Could not open file");
    EXPECT_EQ(got.cause(), nullptr);
  }

  static void expectExportFailure(const Exception& got) {
    expectFacts(got, "AddressAliasDb::exportToFile", 4, "AddressAliasDbMySQL", 587,
                "Could not open file");
    EXPECT_EQ(got.cause(), nullptr);
  }

  Testing::ScratchFile m_file;
};

TEST_F(AddressAliasFiles, ImportAddsAndReplacesLineByLine) {
  addAlias("a@d.example", "old@d.example");
  addAlias("kept@d.example", "k@d.example");
  EXPECT_THAT(statementsOf([this] {
                import(
                    "a@d.example:c@d.example,b@d.example\n\nno colon\n"
                    "last@d.example:x@d.example");
              }),
              ElementsAre("insert into alias ( name, members ) values( 'a@d.example',"
                          "'b@d.example,c@d.example') on duplicate key update members=values( "
                          "members )",
                          "insert into alias ( name, members ) values( 'last@d.example',"
                          "'x@d.example') on duplicate key update members=values( members )"));
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "b@d.example,c@d.example", "0"},
                          {"kept@d.example", "k@d.example", "0"},
                          {"last@d.example", "x@d.example", "0"}}));
}

TEST_F(AddressAliasFiles, AnEmptyFileAddsNothing) {
  EXPECT_THAT(statementsOf([this] { import(""); }), IsEmpty());
}

TEST_F(AddressAliasFiles, LinesWithoutColonAreSkippedAndTheNextOnesImported) {
  import("\nnothing\n\r\n   \na@d.example:b@d.example\n\n");
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "b@d.example", "0"}}));
}

TEST_F(AddressAliasFiles, CarriageReturnsAndBlanksAreIgnored) {
  import("a@d.example:b@d.example,c@d.example\r\n \te@d.example : f@d.example , g@d.example \r\n");
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "b@d.example,c@d.example", "0"},
                          {"e@d.example", "f@d.example,g@d.example", "0"}}));
}

TEST_F(AddressAliasFiles, ANulEndsTheTextItStandsIn) {
  import("a@d.example\0x:b@d.example\0,c@d.example\nz@d.example:y@d.example\n\0\0\n"s);
  EXPECT_EQ(rows(),
            (Rows{{"a@d.example", "b@d.example", "0"}, {"z@d.example", "y@d.example", "0"}}));
}

TEST_F(AddressAliasFiles, MembersMayHoldColonsAndTheAliasNone) {
  import("a@d.example:b@[IPv6:::1],\"c:d\"@d.example\n");
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "b@[IPv6:::1],\"c:d\"@d.example", "0"}}));
  EXPECT_EQ(caught([this] { import("\"a:b\"@d.example:c@d.example\n"); }).context(),
            "EmailAddress::rfc5322Parse");
}

TEST_F(AddressAliasFiles, MembersMayLackADomainAndGroupsAreRefused) {
  import("a@d.example:allusers_d.example\n");
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "allusers_d.example", "0"}}));
  EXPECT_EQ(caught([this] { import("b@d.example:Group: c@d.example;\n"); }).context(),
            "EmailAddress::rfc5322ParseSet");
}

TEST_F(AddressAliasFiles, TheAliasMayBeAnyAddressOfAMessage) {
  import("nodomain:b@d.example\nTeam <a@d.example>:b@d.example\n");
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "b@d.example", "0"}, {"nodomain", "b@d.example", "0"}}));
}

TEST_F(AddressAliasFiles, AMissingTextIsStoredAsAnEmptyOne) {
  import("a@d.example:\n:b@d.example\n");
  EXPECT_EQ(rows(), (Rows{{"", "b@d.example", "0"}, {"a@d.example", "", "0"}}));
}

TEST_F(AddressAliasFiles, ALineOf16383CharactersIsImportedAndSoIsTheNext) {
  import(longLine(s_longest) + "\nz@d.example:y@d.example\n");
  ASSERT_THAT(rows(), SizeIs(2));
  std::set<EmailAddress> members;
  m_table->queryFindMembers(address("a@d.example"), members);
  EXPECT_TRUE(members.contains(address("last@e.example")));
}

TEST_F(AddressAliasFiles, ALongerLineIsCutImportedAndEndsTheImport) {
  import(longLine(s_longest + 1) + "\nz@d.example:y@d.example\n");
  ASSERT_THAT(rows(), SizeIs(1));
  std::set<EmailAddress> members;
  m_table->queryFindMembers(address("a@d.example"), members);
  // The last member lost its last letter.
  EXPECT_TRUE(members.contains(address("last@e.exampl")));
  EXPECT_FALSE(members.contains(address("last@e.example")));
}

TEST_F(AddressAliasFiles, OfALineOf20000CharactersTheFirst16383AreImported) {
  const std::string line = longLine(20000);
  import(line + "\nz@d.example:y@d.example\n");
  std::set<EmailAddress> members;
  m_table->queryFindMembers(address("a@d.example"), members);
  const std::string kept = line.substr(0, s_longest);
  EXPECT_EQ(members, addresses(kept.substr(kept.find(':') + 1)));
  EXPECT_THAT(rows(), SizeIs(1));
}

TEST_F(AddressAliasFiles, ALongLineWithoutColonEndsTheImportToo) {
  const std::string line(20000, 'x');
  import(line + "\na@d.example:b@d.example\n");
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(AddressAliasFiles, AFaultyLineEndsTheImportUnwrappedAndKeepsTheLinesBefore) {
  const Exception got = caught([this] {
    import("a@d.example:b@d.example\nb@@d.example:c@d.example\nc@d.example:d@d.example");
  });
  EXPECT_EQ(got.context(), "EmailAddress::rfc5322Parse");
  EXPECT_EQ(got.cause(), nullptr);
  EXPECT_THAT(rows(), SizeIs(1));
  EXPECT_EQ(caught([this] { import("c@d.example:c@@d.example\n"); }).context(),
            "EmailAddress::rfc5322ParseSet");
}

TEST_F(AddressAliasFiles, OfTwoBadTextsTheAliasIsReported) {
  EXPECT_EQ(caught([this] { import("b@@d.example:c@@d.example\n"); }).context(),
            "EmailAddress::rfc5322Parse");
}

TEST_F(AddressAliasFiles, AFailedStatementEndsTheImportUnwrappedAndKeepsTheLinesBefore) {
  const Exception got = caught([this] {
    import("a@d.example:b@d.example\nb@d.example:o'brien@d.example\nc@d.example:d@d.example");
  });
  EXPECT_EQ(got.code(), 1064) << got.what();
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "b@d.example", "0"}}));
}

TEST_F(AddressAliasFiles, ImportReachesNeitherCacheNorCount) {
  addAlias("a@d.example", "old@d.example");
  const AddressAliasDbMySQL preloaded(*m_store, true, "");
  EXPECT_EQ(preloaded.expandAlias(address("a@d.example")), addresses("old@d.example"));
  import("a@d.example:new@d.example\nb@d.example:c@d.example\n");
  EXPECT_THAT(statementsOf([&] {
                EXPECT_EQ(preloaded.expandAlias(address("a@d.example")),
                          addresses("old@d.example"));
                EXPECT_THAT(preloaded.expandAlias(address("b@d.example")), IsEmpty());
              }),
              IsEmpty());
}

TEST_F(AddressAliasFiles, AFileThatCannotBeOpenedForImportIsReported) {
  expectImportFailure(caught([this] { m_table->importFromFile(m_file.path()); }));
  expectImportFailure(caught([this] { m_table->importFromFile(""); }));
}

TEST_F(AddressAliasFiles, AFileThatMayNotBeReadIsReported) {
  m_file.write("a@d.example:b@d.example\n");
  m_file.forbid();
  const Testing::AsNobody nobody;
  expectImportFailure(caught([this] { m_table->importFromFile(m_file.path()); }));
}

TEST_F(AddressAliasFiles, ADirectoryIsImportedAsAnEmptyFile) {
  EXPECT_THAT(statementsOf([this] { m_table->importFromFile(m_file.directory()); }), IsEmpty());
}

TEST_F(AddressAliasFiles, ExportLeavesAnEmptyFileAndCountsTheRows) {
  m_file.write("old content");
  addAlias("a@d.example", "m@d.example");
  EXPECT_THAT(statementsOf([this] { m_table->exportToFile(m_file.path()); }),
              ElementsAre("select * from alias"));
  EXPECT_EQ(m_file.text(), "");
  // The refreshed row count turns on what a table without preload does not do.
  EXPECT_EQ(m_table->expandAlias(address("a@d.example")), addresses("m@d.example"));
}

TEST_F(AddressAliasFiles, ExportMakesAMissingFile) {
  m_table->exportToFile(m_file.path());
  EXPECT_TRUE(std::filesystem::is_regular_file(m_file.path()));
}

TEST_F(AddressAliasFiles, AFileThatCannotBeOpenedForExportIsReportedAfterTheCount) {
  addAlias("a@d.example", "m@d.example");
  expectExportFailure(
      caught([this] { m_table->exportToFile(m_file.directory() + "/missing/file"); }));
  EXPECT_FALSE(m_table->isEveryAliasCached());
  expectExportFailure(caught([this] { m_table->exportToFile(m_file.directory()); }));
}

TEST_F(AddressAliasFiles, AFileThatMayNotBeWrittenIsReportedAndKept) {
  m_file.write("old content");
  m_file.forbid();
  {
    const Testing::AsNobody nobody;
    expectExportFailure(caught([this] { m_table->exportToFile(m_file.path()); }));
  }
  std::filesystem::permissions(m_file.path(), std::filesystem::perms::owner_read);
  EXPECT_EQ(m_file.text(), "old content");
}

TEST_F(AddressAliasFiles, AFullDiskIsNotNoticedBecauseNothingIsWritten) {
  addAlias("a@d.example", "m@d.example");
  EXPECT_NO_THROW(m_table->exportToFile("/dev/full"));
}

TEST_F(AddressAliasFiles, AFailedReadingLeavesTheExportFileUntouched) {
  m_file.write("old content");
  AddressAliasDbMySQL table(*m_store, false, "missing");
  EXPECT_EQ(caught([&] { table.exportToFile(m_file.path()); }).code(), 1146);
  EXPECT_EQ(m_file.text(), "old content");
}

TEST_F(AddressAliasFiles, AFailedReadingLeavesTheCountAsItWas) {
  addAlias("a@d.example", "m@d.example");
  const auto exportFails = [this](AddressAliasDbMySQL& table) {
    EXPECT_THROW(table.exportToFile(m_file.path()), Exception);
  };
  AddressAliasDbMySQL counted(*m_store, true, "");
  sql("rename table ts_address_map.alias to ts_address_map.away");
  exportFails(counted);
  EXPECT_FALSE(counted.isEveryAliasCached());
  sql("rename table ts_address_map.away to ts_address_map.alias");
  // One row counted and cached; now there are three, and the last does not parse.
  static_cast<void>(counted.expandAlias(address("a@d.example")));
  addAlias("b@d.example", "m@d.example");
  addAlias("c@d.example", "no address");
  exportFails(counted);
  EXPECT_TRUE(counted.isEveryAliasCached());
}

TEST_F(AddressAliasFiles, TheMutexIsFreeBetweenTheLinesOfAnImport) {
  m_file.makePipe();
  std::thread import([this] { m_table->importFromFile(m_file.path()); });
  {
    std::ofstream lines(m_file.path());
    lines << "a@d.example:b@d.example\n" << std::flush;
    while (rows().empty()) std::this_thread::yield();
    // The import has its first answer and waits for the next line.
    EXPECT_TRUE(Testing::becomesFree(m_store->mutex()));
    lines << "c@d.example:d@d.example\n";
  }
  import.join();
  EXPECT_THAT(rows(), SizeIs(2));
}

TEST_F(AddressAliasFiles, TheMutexIsFreeWhileAnExportOpensItsFile) {
  addAlias("a@d.example", "m@d.example");
  m_file.makePipe();
  std::thread writing([this] { m_table->exportToFile(m_file.path()); });
  while (m_table->isEveryAliasCached()) std::this_thread::yield();
  // The rows are counted, and nobody reads the pipe yet.
  EXPECT_TRUE(Testing::becomesFree(m_store->mutex()));
  EXPECT_EQ(m_file.text(), "");
  writing.join();
}

}  // namespace
}  // namespace Tessel
