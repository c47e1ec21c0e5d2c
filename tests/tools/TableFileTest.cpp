// Tests of table files that are read as a whole: lines, records, and faults with their lines.
#include "files/TableFile.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "files/Lines.h"
#include "support/ScratchFile.h"

namespace Tessel::Tool {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using Testing::ScratchFile;

using Numbered = std::vector<std::pair<std::size_t, std::string>>;

Numbered s_lines(const std::string& text) {
  const ScratchFile file;
  file.write(text);
  const std::string name = "FILE";
  Lines lines(file.path(), name);
  lines.ahead(2);
  Numbered all;
  for (std::string_view line; lines.next(line);) all.emplace_back(lines.number(), line);
  return all;
}

Numbered s_records(const std::string& text, const char* format) {
  const ScratchFile file;
  file.write(text);
  const std::string name = "FILE";
  Lines lines(file.path(), name);
  Records records(lines, FileSyntax::named(format, TableFormat::alias(), "")->isLogical());
  Numbered all;
  for (std::string_view record; records.next(record);) all.emplace_back(records.number(), record);
  return all;
}

TEST(Lines, EndInLfOrCrLfAndKeepEverythingElse) {
  EXPECT_THAT(s_lines("a\r\n\nb\rc\n d \n\xef\xbb\xbf"),
              ElementsAre(Pair(1, "a"), Pair(2, ""), Pair(3, "b\rc"), Pair(4, " d "),
                          Pair(5, "\xef\xbb\xbf")));
  EXPECT_THAT(s_lines("\xef\xbb\xbf\xef\xbb\xbf"
                      "a"),
              ElementsAre(Pair(1,
                               "\xef\xbb\xbf"
                               "a")));
  EXPECT_THAT(s_lines(""), IsEmpty());
}

TEST(Lines, BlanksAreTrimmed) {
  EXPECT_EQ(trimmed(" \ta b\r"), "a b");
  EXPECT_EQ(trimmed(" \t\r"), "");
  EXPECT_EQ(trimmed(""), "");
}

TEST(Records, AreTheLinesThatAreNotBlank) {
  EXPECT_THAT(s_records("\n#a\n \t\r\n b\n", "native"), ElementsAre(Pair(2, "#a"), Pair(4, " b")));
}

TEST(Records, OfPostfixAreContinuedByBlanksAndInterruptedByComments) {
  const char* const text = "# x\n a\nb\n\n#c\n  # d\n\te\nf\n";
  for (const char* const format : {"virtual", "aliases"}) {
    EXPECT_THAT(s_records(text, format), ElementsAre(Pair(2, " a"), Pair(3, "b\te"), Pair(8, "f")))
        << format;
  }
}

// What is reported about the file of `text`; nothing when it is good.
std::string s_faults(const TableFormat& format, const std::string& text,
                     const TableFile::Options& options = {}) {
  const ScratchFile file;
  file.write(text);
  Progress progress;
  testing::internal::CaptureStderr();
  try {
    const TableFile read(format, file.path(), options, progress);
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.code(), ExitCode::BadData);
    EXPECT_EQ(failure.why(), "it has bad lines");
  }
  std::string said = testing::internal::GetCapturedStderr();
  for (std::size_t at = 0; (at = said.find(file.path(), at)) != std::string::npos;) {
    said.replace(at, file.path().size(), "FILE");
  }
  return said;
}

TEST(TableFile, EntriesAreInTheOrderOfTheirKeysAndFound) {
  const ScratchFile file;
  file.write("b@in:2@out\na@in:1@out\n");
  Progress progress;
  const TableFile read(TableFormat::mask(), file.path(), {}, progress);
  ASSERT_EQ(read.entries().size(), 2U);
  EXPECT_EQ(read.entries()[0].line(), "a@in:1@out");
  EXPECT_EQ(read.entries()[0].number, 2U);
  EXPECT_EQ(read.entries()[1].line(), "b@in:2@out");
  EXPECT_EQ(read.withKey(EmailAddress::rfc5321Parse("B@IN", false)), &read.entries()[1]);
  EXPECT_EQ(read.withKey(EmailAddress::rfc5321Parse("2@out", false)), nullptr);
  EXPECT_EQ(read.withPublic(EmailAddress::rfc5321Parse("2@OUT", false)), &read.entries()[1]);
  EXPECT_EQ(read.withPublic(EmailAddress::rfc5321Parse("b@in", false)), nullptr);
}

TEST(TableFile, EveryBadLineIsReportedWithItsNumber) {
  EXPECT_EQ(s_faults(TableFormat::alias(), "t@d:a@x\nu@d:\n\nv@d\n", {"native", ""}),
            "tsl-address-map: FILE:2: the members are empty\n"
            "tsl-address-map: FILE:4: there is no colon after an address\n");
}

TEST(TableFile, AddressesThatAreThereTwiceAreReportedWithBothLines) {
  EXPECT_EQ(s_faults(TableFormat::alias(), "t@d:a@x\nu@d:a@x\nT@D:b@x\n"),
            "tsl-address-map: FILE:3: the alias T@D is in line 1 already\n");
  EXPECT_EQ(s_faults(TableFormat::mask(), "a@in:x@out\nb@in:y@out\na@IN:z@out\nc@in:X@out\n"),
            "tsl-address-map: FILE:3: the private address a@IN is in line 1 already\n"
            "tsl-address-map: FILE:4: the public address X@out is in line 1 already\n");
}

// A line that was left out does not keep a later one out.
TEST(TableFile, OfLinesForOneAddressTheFirstGoodOneIsKept) {
  const ScratchFile file;
  file.write("c@in:z@out\nb@in:y@out\na@in:y@out\na@in:x@out\nA@in:w@out\n");
  Progress progress;
  TableFile::Options options;
  options.skipBad = true;
  testing::internal::CaptureStderr();
  const TableFile read(TableFormat::mask(), file.path(), options, progress);
  testing::internal::GetCapturedStderr();
  std::vector<std::string> kept;
  for (const FileEntry& entry : read.entries()) kept.push_back(entry.line());
  EXPECT_THAT(kept, ElementsAre("a@in:x@out", "b@in:y@out", "c@in:z@out"));
  ASSERT_EQ(read.skipped().size(), 2U);
  EXPECT_EQ(read.skipped()[0].line, 3U);
  EXPECT_EQ(read.skipped()[1].reason, "the private address A@in is in line 4 already");
  EXPECT_EQ(read.withPublic(EmailAddress::rfc5321Parse("X@out", false)), &read.entries()[0]);
  EXPECT_EQ(read.withKey(EmailAddress::rfc5321Parse("C@in", false)), &read.entries()[2]);
  EXPECT_EQ(read.withPublic(EmailAddress::rfc5321Parse("w@out", false)), nullptr);
}

TEST(TableFile, ACsvFileBeginsWithItsHeader) {
  EXPECT_EQ(s_faults(TableFormat::alias(), "address,members\nt@d,a@x\n"), "");
  EXPECT_EQ(s_faults(TableFormat::alias(), "Members;Id;Address\na@x;1;t@d\n\na@x;t@d\n"),
            "tsl-address-map: FILE:4: its number of fields is 2, and not 3 as in the header\n");
  const ScratchFile file;
  file.write("\nt@d,a@x\nu@d,a@x\n");
  Progress progress;
  try {
    const TableFile read(TableFormat::alias(), file.path(), {"csv", ""}, progress);
    ADD_FAILURE() << "it was read";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.code(), ExitCode::BadData);
    EXPECT_EQ(failure.subject(), file.path() + ":2");
    EXPECT_EQ(failure.why(), "the header does not have the column 'address' once");
    EXPECT_THAT(failure.hint(), HasSubstr("--columns"));
  }
}

TEST(LineFaults, OfManyTheFirstHundredAreShownInOrder) {
  testing::internal::CaptureStderr();
  LineFaults faults("FILE");
  EXPECT_TRUE(faults.isEmpty());
  for (std::size_t line = 150; line > 0; --line) faults.add(line, "bad");
  EXPECT_FALSE(faults.isEmpty());
  EXPECT_THROW(faults.refuse("it has bad lines"), Failure);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              AllOf(HasSubstr("FILE:1: bad\n"), HasSubstr("FILE:100: bad\n"),
                    Not(HasSubstr("FILE:101: ")), HasSubstr("and 50 more\n")));
}

}  // namespace
}  // namespace Tessel::Tool
