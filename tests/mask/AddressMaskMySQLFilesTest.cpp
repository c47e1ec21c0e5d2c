// Tests of the files of an address-mask table: what an import takes from a line, where it ends, and
// what an export leaves behind.
#include <atomic>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mask/MaskTable.h"
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

class AddressMaskMySQLFiles : public Testing::MaskTable {
 protected:
  void SetUp() override {
    MaskTable::SetUp();
    m_table = open(false);
  }

  void import(const std::string& text) {
    m_file.write(text);
    m_table->importFromFile(m_file.path());
  }

  // `line` with blanks at its end up to `size` characters: parsers ignore them.
  static std::string padded(const std::string& line, std::size_t size) {
    return line + std::string(size - line.size(), ' ');
  }

  static void expectImportFailure(const Exception& got) {
    expectFacts(got, "AddressMaskDb::importFromFile", 4, "AddressMaskMySQL", 439,
                "Could not open file");
    EXPECT_EQ(got.cause(), nullptr);
  }

  static void expectExportFailure(const Exception& got) {
    expectFacts(got, "AddressAliasMaskDb::exportToFile", 4, "AddressMaskMySQL", 425,
                "Could not open file");
    EXPECT_EQ(got.cause(), nullptr);
  }

  Testing::ScratchFile m_file;
  std::unique_ptr<AddressMaskDbMySQL> m_table;
};

TEST_F(AddressMaskMySQLFiles, ImportAddsAndReplacesLineByLineAndDeletesNothing) {
  addMask("a@d.example", "old@e.example");
  addMask("kept@d.example", "kept@e.example");
  EXPECT_THAT(
      statementsOf([this] { import("a@d.example:new@e.example\nb@d.example:b@e.example"); }),
      ElementsAre("insert into mask (private, public ) values( "
                  "'a@d.example','new@e.example' ) on duplicate key update public=values( "
                  "public )",
                  "insert into mask (private, public ) values( "
                  "'b@d.example','b@e.example' ) on duplicate key update public=values( "
                  "public )"));
  EXPECT_EQ(rows(), (Rows{{"a@d.example", "new@e.example"},
                          {"b@d.example", "b@e.example"},
                          {"kept@d.example", "kept@e.example"}}));
}

TEST_F(AddressMaskMySQLFiles, AnEmptyFileAddsNothing) {
  EXPECT_THAT(statementsOf([this] { import(""); }), IsEmpty());
}

TEST_F(AddressMaskMySQLFiles, LinesWithoutColonAreSkippedAndTheNextOnesImported) {
  import("\nnothing\n\r\n   \np@d.example:q@e.example\n\n");
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}}));
}

TEST_F(AddressMaskMySQLFiles, ALastLineWithoutLineFeedIsImported) {
  import("p@d.example:q@e.example\np2@d.example:q2@e.example");
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}, {"p2@d.example", "q2@e.example"}}));
}

TEST_F(AddressMaskMySQLFiles, CarriageReturnsAndBlanksAroundAddressesAreIgnored) {
  import("p@d.example:q@e.example\r\n \tp2@d.example : q2@e.example \r\n");
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}, {"p2@d.example", "q2@e.example"}}));
}

TEST_F(AddressMaskMySQLFiles, ANulEndsTheAddressItStandsIn) {
  import("p@d.example\0x:q@e.example\0,y@e.example\np2@d.example:q2@e.example\n\0\0\n"s);
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}, {"p2@d.example", "q2@e.example"}}));
}

TEST_F(AddressMaskMySQLFiles, AnAddressLiteralIsCutAtItsColon) {
  EXPECT_EQ(caught([this] { import("p@[IPv6:::1]:q@e.example\n"); }).context(),
            "EmailAddress::rfc5321Parse");
  // As a public address it stands whole behind the first colon.
  import("p@d.example:q@[IPv6:::1]\n");
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@[IPv6:::1]"}}));
}

TEST_F(AddressMaskMySQLFiles, BothAddressesAreBareAndNeedADomain) {
  for (const char* line : {"nodomain:q@e.example", "p@d.example:nodomain",
                           "P <p@d.example>:q@e.example", "p@d.example:Q <q@e.example>"}) {
    EXPECT_EQ(caught([&] { import(line); }).context(), "EmailAddress::rfc5321Parse") << line;
  }
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(AddressMaskMySQLFiles, AMissingAddressIsStoredAsAnEmptyText) {
  import("p@d.example:\n:q@e.example\n");
  EXPECT_EQ(rows(), (Rows{{"", "q@e.example"}, {"p@d.example", ""}}));
}

TEST_F(AddressMaskMySQLFiles, ATakenPublicAddressAddsNoRow) {
  import("p@d.example:q@e.example\np2@d.example:q@e.example\n");
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}}));
}

TEST_F(AddressMaskMySQLFiles, ALineOf16383CharactersIsImportedAndSoIsTheNext) {
  import(padded("p@d.example:q@e.example", s_longest) + "\np2@d.example:q2@e.example\n");
  EXPECT_THAT(rows(), SizeIs(2));
}

TEST_F(AddressMaskMySQLFiles, ALongerLineIsCutImportedAndEndsTheImport) {
  for (const std::size_t size : {s_longest + 1, std::size_t{20000}}) {
    sql("delete from ts_address_map.mask");
    import(padded("p@d.example:q@e.example", size) + "\np2@d.example:q2@e.example\n");
    EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}})) << size;
  }
}

TEST_F(AddressMaskMySQLFiles, AnAddressOnTheCutIsImportedShortened) {
  // The last character of the domain is the first that is cut off.
  const std::string end = ":q@e.exampleX";
  const std::string start = "p@d.example";
  const std::string line = padded(start, s_longest + 1 - end.size()) + end;
  ASSERT_EQ(line.size(), s_longest + 1);
  import(line + "\n");
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}}));
}

TEST_F(AddressMaskMySQLFiles, ALongLineWithoutColonEndsTheImportToo) {
  import(padded("no colon", 20000) + "\np@d.example:q@e.example\n");
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(AddressMaskMySQLFiles, ABadAddressEndsTheImportUnwrappedAndKeepsTheLinesBefore) {
  const Exception got = caught(
      [this] { import("p@d.example:q@e.example\nbad:x@e.example\nr@d.example:r@e.example"); });
  EXPECT_EQ(got.context(), "EmailAddress::rfc5321Parse");
  EXPECT_EQ(got.cause(), nullptr);
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}}));
}

TEST_F(AddressMaskMySQLFiles, OfTwoBadAddressesThePrivateOneIsReported) {
  const Exception got = caught([this] { import("bad-private:bad-public\n"); });
  EXPECT_THAT(got.stringParameter(), testing::HasSubstr("bad-private"));
}

TEST_F(AddressMaskMySQLFiles, AFailedStatementEndsTheImportUnwrappedAndKeepsTheLinesBefore) {
  // The second pair takes the private address of one row and the public address of another.
  addMask("x@d.example", "x@e.example");
  const Exception got = caught([this] {
    import("p@d.example:q@e.example\nx@d.example:q@e.example\nr@d.example:r@e.example");
  });
  EXPECT_EQ(got.code(), 1062) << got.what();
  EXPECT_EQ(rows(), (Rows{{"p@d.example", "q@e.example"}, {"x@d.example", "x@e.example"}}));
}

TEST_F(AddressMaskMySQLFiles, ImportReachesNeitherCacheNorCountNorWildcards) {
  addPairs(0, 1);
  const auto table = open(true);
  m_file.write("p0000@d.example:new@e.example\nx@d.example:x@e.example\n*@a.example:*@b.example\n");
  table->importFromFile(m_file.path());
  EXPECT_EQ(statementCount([&] {
              EXPECT_EQ(table->findPublicAddress(inner(0)), outer(0));
              EXPECT_TRUE(table->findPublicAddress(address("x@d.example")).isNull());
              EXPECT_TRUE(table->findPublicAddress(address("l@a.example")).isNull());
            }),
            0U);
  EXPECT_EQ(open(true)->findPublicAddress(address("l@a.example")), address("l@b.example"));
}

TEST_F(AddressMaskMySQLFiles, AFileThatCannotBeOpenedForImportIsReported) {
  expectImportFailure(caught([this] { m_table->importFromFile(m_file.path()); }));
  expectImportFailure(caught([this] { m_table->importFromFile(""); }));
}

TEST_F(AddressMaskMySQLFiles, AFileThatMayNotBeReadIsReported) {
  m_file.write("p@d.example:q@e.example\n");
  m_file.forbid();
  const Testing::AsNobody nobody;
  expectImportFailure(caught([this] { m_table->importFromFile(m_file.path()); }));
}

TEST_F(AddressMaskMySQLFiles, ADirectoryIsImportedAsAnEmptyFile) {
  EXPECT_THAT(statementsOf([this] { m_table->importFromFile(m_file.directory()); }), IsEmpty());
}

TEST_F(AddressMaskMySQLFiles, ExportLeavesAnEmptyFileAndCountsThePlainRows) {
  addPairs(0, 2);
  addMask("*@a.example", "*@b.example");
  m_file.write("old content");
  EXPECT_THAT(statementsOf([this] { m_table->exportToFile(m_file.path()); }),
              ElementsAre("select * from mask where private not like '%*%'"));
  EXPECT_EQ(m_file.text(), "");
  sql("drop table ts_address_map.mask");
  EXPECT_EQ(caught([this] {
              static_cast<void>(m_table->findPrivateAddress(outer(0)));
            }).stringParameter(),
            "m_entries = 0 / cached=2");
}

TEST_F(AddressMaskMySQLFiles, ExportMakesAMissingFile) {
  m_table->exportToFile(m_file.path());
  EXPECT_TRUE(std::filesystem::is_regular_file(m_file.path()));
}

TEST_F(AddressMaskMySQLFiles, AFileThatCannotBeOpenedForExportIsReportedAfterTheCount) {
  addPairs(0, 1);
  expectExportFailure(
      caught([this] { m_table->exportToFile(m_file.directory() + "/missing/file"); }));
  EXPECT_EQ(m_table->findPublicAddress(inner(0)), outer(0));
  expectExportFailure(caught([this] { m_table->exportToFile(m_file.directory()); }));
}

TEST_F(AddressMaskMySQLFiles, AFileThatMayNotBeWrittenIsReportedAndKept) {
  m_file.write("old content");
  m_file.forbid();
  {
    const Testing::AsNobody nobody;
    expectExportFailure(caught([this] { m_table->exportToFile(m_file.path()); }));
  }
  std::filesystem::permissions(m_file.path(), std::filesystem::perms::owner_read);
  EXPECT_EQ(m_file.text(), "old content");
}

TEST_F(AddressMaskMySQLFiles, AFullDiskIsNotNoticedBecauseNothingIsWritten) {
  addPairs(0, 1);
  EXPECT_NO_THROW(m_table->exportToFile("/dev/full"));
}

TEST_F(AddressMaskMySQLFiles, AFailedReadingLeavesTheExportFileUntouched) {
  m_file.write("old content");
  const auto table = open(false, "missing");
  const Exception got = caught([&] { table->exportToFile(m_file.path()); });
  expectFacts(got, "queryEntries ", 4, "AddressMaskMySQL", 218, "Error reading mask_missing");
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->code(), 1146);
  EXPECT_EQ(m_file.text(), "old content");
}

TEST_F(AddressMaskMySQLFiles, AFailedReadingLeavesTheCountAsItWas) {
  const auto table = openPartlyCached(0, 2);
  const auto counted = [&] {
    sql("rename table ts_address_map.mask to ts_address_map.away");
    EXPECT_THROW(table->exportToFile(m_file.path()), Exception);
    std::string got =
        caught([&] { static_cast<void>(table->findPrivateAddress(outer(0))); }).stringParameter();
    sql("rename table ts_address_map.away to ts_address_map.mask");
    return got;
  };
  EXPECT_EQ(counted(), "m_entries = 0 / cached=2");
  addPairs(2, 4);
  addMask("z no address", "z@e.example");
  EXPECT_THROW(table->exportToFile(m_file.path()), Exception);
  EXPECT_EQ(counted(), "m_entries = 0 / cached=2");
}

TEST_F(AddressMaskMySQLFiles, TheMutexIsFreeBetweenTheLinesOfAnImport) {
  m_file.makePipe();
  std::thread import([this] { m_table->importFromFile(m_file.path()); });
  {
    std::ofstream lines(m_file.path());
    lines << "p@d.example:q@e.example\n" << std::flush;
    while (rows().empty()) std::this_thread::yield();
    // The import has its first answer and waits for the next line.
    EXPECT_TRUE(Testing::becomesFree(m_store->mutex()));
    lines << "r@d.example:s@e.example\n";
  }
  import.join();
  EXPECT_THAT(rows(), SizeIs(2));
}

TEST_F(AddressMaskMySQLFiles, TheMutexIsFreeWhileAnExportOpensItsFile) {
  addPairs(0, 1);
  m_file.makePipe();
  std::atomic<bool> asked{false};
  const Testing::StatementHook hook([&](const std::string& /*statement*/) { asked = true; });
  std::thread writing([this] { m_table->exportToFile(m_file.path()); });
  // The export is in its statement, or already waits for a reader of the pipe.
  while (!asked) std::this_thread::yield();
  EXPECT_TRUE(Testing::becomesFree(m_store->mutex()));
  EXPECT_EQ(m_file.text(), "");
  writing.join();
}

}  // namespace
}  // namespace Tessel
