// Tests of the alias loops that an import would leave behind.
#include "files/ImportCycles.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ScratchFile.h"

namespace Tessel::Tool {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Testing::ScratchFile;

class ImportCyclesTest : public testing::Test {
 protected:
  // A file of the lines `text`; all of its entries are written.
  void read(const std::string& text) {
    const ScratchFile file;
    file.write(text);
    Progress progress;
    m_file = std::make_unique<TableFile>(TableFormat::alias(), file.path(),
                                         TableFile::Options{"native", ""}, progress);
    m_cycles = std::make_unique<ImportCycles>(*m_file);
    for (const FileEntry& entry : m_file->entries()) m_written.push_back(&entry);
  }
  void replace(const char* alias, const char* members) {
    m_cycles->replace(*m_file->withKey(EmailAddress::rfc5321Parse(alias, false)), members);
  }
  // The loops as "LINE new a -> b -> a".
  std::vector<std::string> find() {
    std::vector<std::string> found;
    for (const ImportCycles::Cycle& cycle : m_cycles->find(m_written)) {
      std::string text = std::to_string(cycle.line) + (cycle.isNew ? " new" : " old");
      for (const std::string& alias : cycle.path) text += " " + alias;
      found.push_back(text);
    }
    return found;
  }

  std::unique_ptr<TableFile> m_file;
  std::unique_ptr<ImportCycles> m_cycles;
  std::vector<const FileEntry*> m_written;
};

TEST_F(ImportCyclesTest, AliasesThatLeadOutAreNone) {
  read("a@d:b@d,c@d\nb@d:c@d\n");
  m_cycles->keep("c@d", "x@d");
  EXPECT_THAT(find(), IsEmpty());
}

TEST_F(ImportCyclesTest, AnAliasThatNamesItselfIsNone) {
  read("a@d:a@d,x@d\n");
  EXPECT_THAT(find(), IsEmpty());
}

TEST_F(ImportCyclesTest, TheLineThatClosesALoopIsNamed) {
  read("x@d:y@d\nb@d:C@D\na@d:b@d\nc@d:y@d,A@d\n");
  EXPECT_THAT(find(), ElementsAre("3 new a@d b@d c@d a@d"));
}

TEST_F(ImportCyclesTest, RowsThatTheFileDoesNotMentionAreFollowed) {
  read("a@d:\"b\"@d\n");
  m_cycles->keep("B@d", "The C <c@d>, x@d");
  m_cycles->keep("c@d", "a@d");
  // Of the same address the first row counts, and broken rows lead nowhere.
  m_cycles->keep("b@D", "x@d");
  m_cycles->keep("broken", "a@d");
  EXPECT_THAT(find(), ElementsAre("1 new a@d B@d c@d a@d"));
}

TEST_F(ImportCyclesTest, ALoopThatWasThereBeforeIsNotNew) {
  read("a@d:b@d,x@d\n");
  m_cycles->keep("b@d", "a@d");
  replace("a@d", "b@d");
  EXPECT_THAT(find(), ElementsAre("1 old a@d b@d a@d"));
}

TEST_F(ImportCyclesTest, AMemberThatTheBrokenRowBeforeDidNotHaveIsNew) {
  read("a@d:b@d\n");
  m_cycles->keep("b@d", "a@d");
  replace("a@d", "b@d,c@");
  EXPECT_THAT(find(), ElementsAre("1 new a@d b@d a@d"));
}

TEST_F(ImportCyclesTest, LoopsThatNoWrittenEntryIsInAreNotReported) {
  read("a@d:b@d\n");
  m_cycles->keep("b@d", "c@d");
  m_cycles->keep("c@d", "b@d");
  EXPECT_THAT(find(), IsEmpty());
}

}  // namespace
}  // namespace Tessel::Tool
