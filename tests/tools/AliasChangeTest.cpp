// Tests of the alias loops and the markers without effect that a change would leave behind.
#include "tables/AliasChange.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tessel::Tool {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class AliasChangeTest : public testing::Test {
 protected:
  // Writes the rows `lines`, "ALIAS:MEMBER,MEMBER", all of them new.
  void write(const std::vector<std::string>& lines) {
    RowReader reader(TableKind::Alias);
    m_rows.resize(lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
      const std::size_t colon = lines[i].find(':');
      readEntry(reader, lines[i].substr(0, colon), lines[i].substr(colon + 1), m_rows[i]);
      m_change.write(m_rows[i]);
    }
  }
  // The loops as "ROW new a -> b -> a".
  std::vector<std::string> loops() {
    std::vector<std::string> found;
    for (const AliasLoop& loop : m_change.loops()) {
      found.push_back(std::to_string(loop.row) + (loop.isNew ? " new " : " old ") +
                      textOf(loop.path));
    }
    return found;
  }
  // The lost markers as "ROW new ALIAS HOLDER".
  std::vector<std::string> lost() {
    std::vector<std::string> found;
    for (const LostMarker& one : m_change.lostMarkers()) {
      EXPECT_EQ(one.marker, "allusers_d");
      found.push_back((one.row ? std::to_string(*one.row) : "-") + (one.isNew ? " new " : " old ") +
                      one.alias + " " + one.holder);
    }
    return found;
  }

  std::vector<TableEntry> m_rows;
  AliasChange m_change;
};

TEST_F(AliasChangeTest, AliasesThatLeadOutAreNone) {
  write({"a@d:b@d,c@d", "b@d:c@d"});
  m_change.keep("c@d", "x@d");
  EXPECT_THAT(loops(), IsEmpty());
}

TEST_F(AliasChangeTest, AnAliasThatNamesItselfIsNone) {
  write({"a@d:a@d,x@d"});
  EXPECT_THAT(loops(), IsEmpty());
}

TEST_F(AliasChangeTest, TheRowThatClosesALoopIsNamed) {
  write({"x@d:y@d", "b@d:C@D", "a@d:b@d", "c@d:y@d,A@d"});
  EXPECT_THAT(loops(), ElementsAre("1 new b@d -> c@d -> a@d -> b@d"));
}

TEST_F(AliasChangeTest, RowsThatStayAreFollowed) {
  write({"a@d:\"b\"@d"});
  m_change.keep("B@d", "The C <c@d>, x@d");
  m_change.keep("c@d", "a@d");
  // Of the same address the first row counts, and broken rows lead nowhere.
  m_change.keep("b@D", "x@d");
  m_change.keep("broken", "a@d");
  EXPECT_THAT(loops(), ElementsAre("0 new a@d -> B@d -> c@d -> a@d"));
}

TEST_F(AliasChangeTest, ALoopThatWasThereBeforeIsNotNew) {
  write({"a@d:b@d,x@d"});
  m_change.keep("b@d", "a@d");
  m_change.setBefore(0, "b@d");
  EXPECT_THAT(loops(), ElementsAre("0 old a@d -> b@d -> a@d"));
}

TEST_F(AliasChangeTest, AMemberThatTheBrokenRowBeforeDidNotHaveIsNew) {
  write({"a@d:b@d"});
  m_change.keep("b@d", "a@d");
  m_change.setBefore(0, "b@d,c@");
  EXPECT_THAT(loops(), ElementsAre("0 new a@d -> b@d -> a@d"));
}

TEST_F(AliasChangeTest, LoopsThatNoWrittenRowIsInAreNotReported) {
  write({"a@d:b@d"});
  m_change.keep("b@d", "c@d");
  m_change.keep("c@d", "b@d");
  EXPECT_THAT(loops(), IsEmpty());
}

TEST_F(AliasChangeTest, ARowThatIsAsItWasClosesNoLoop) {
  write({"a@d:b@d"});
  m_change.leave(0);
  m_change.keep("b@d", "a@d");
  EXPECT_THAT(loops(), IsEmpty());
}

TEST_F(AliasChangeTest, AMarkerThatIsReachedAloneFromItsDomainIsNotLost) {
  write({"all@d:allusers_d", "top@D:all@d,side@d"});
  m_change.keep("side@d", "all@d");
  EXPECT_TRUE(m_change.changesReach());
  EXPECT_THAT(lost(), IsEmpty());
}

TEST_F(AliasChangeTest, AMarkerWithOthersOrOfAnotherDomainIsLost) {
  write({"mixed@d:all@d,x@d", "foreign@e:all@d", "own@d:allusers_d,own@d"});
  m_change.keep("all@d", "allusers_d");
  EXPECT_THAT(lost(),
              ElementsAre("0 new mixed@d all@d", "1 new foreign@e all@d", "2 new own@d own@d"));
}

TEST_F(AliasChangeTest, AnAliasAboveTheOneThatGetsAMarkerLosesIt) {
  write({"other@d:x@d", "all@d:allusers_d"});
  m_change.keep("list@d", "all@d,x@d");
  m_change.keep("top@d", "list@d");  // Only leads to one.
  EXPECT_TRUE(m_change.changesReach());
  EXPECT_THAT(lost(), ElementsAre("1 new list@d all@d"));
  EXPECT_EQ(m_change.lostMarkers().front().why().substr(0, 53),
            "alias list@d leads to all@d, whose member 'allusers_d");
}

TEST_F(AliasChangeTest, AnAliasLosesTheMarkerWhenAnotherMemberLeadsElsewhere) {
  write({"team@d:x@d"});
  m_change.setBefore(0, "all@d");
  m_change.keep("all@d", "allusers_d");
  m_change.keep("list@d", "all@d,team@d");
  EXPECT_TRUE(m_change.changesReach());
  EXPECT_THAT(lost(), ElementsAre("0 new list@d all@d"));
}

TEST_F(AliasChangeTest, ARemovedRowIsAnAddressFromThenOn) {
  write({"list@d:all@d,team@d"});
  m_change.leave(0);
  m_change.keep("all@d", "allusers_d");
  m_change.remove("team@d", "all@d");
  m_change.keep("kept@d", "all@d,team@d");
  EXPECT_FALSE(m_change.changesReach());
  EXPECT_THAT(lost(), ElementsAre("0 new list@d all@d", "- new kept@d all@d"));
}

TEST_F(AliasChangeTest, AMarkerThatWasLostBeforeIsThatOfAChangedRowOnly) {
  write({"mixed@d:all@d,x@d,y@d", "same@d:all@d,x@d", "above@d:stays@d"});
  m_change.setBefore(0, "all@d,x@d");
  m_change.leave(1);
  m_change.keep("all@d", "allusers_d");
  m_change.keep("stays@d", "all@d,x@d");
  EXPECT_THAT(lost(), ElementsAre("0 old mixed@d all@d", "2 new above@d all@d"));
}

TEST_F(AliasChangeTest, AliasesThatLeadToEachOtherLoseAMarkerTogether) {
  write({"a@d:b@d,all@d"});
  m_change.keep("b@d", "a@d,x@d");
  m_change.keep("all@d", "allusers_d");
  EXPECT_THAT(lost(), ElementsAre("0 new a@d all@d", "0 new b@d all@d"));
}

TEST_F(AliasChangeTest, SpellingsOfOneAddressAreOneAlias) {
  write({"a@d:b@d", "\"a\"@d:all@d", "b@d:x@d"});
  m_change.keep("all@d", "allusers_d");
  EXPECT_THAT(loops(), IsEmpty());
  EXPECT_THAT(lost(), ElementsAre("0 new a@d all@d"));
  m_change = {};
  write({"x@d:y@d", "\"x\"@d:b@d", "b@d:x@d"});
  EXPECT_THAT(loops(), ElementsAre("0 new x@d -> b@d -> x@d"));
}

TEST_F(AliasChangeTest, OtherAddressesChangeNothingAbove) {
  write({"a@d:b@d,x@d"});
  m_change.setBefore(0, "y@d,a@d");
  m_change.keep("b@d", "x@d");
  EXPECT_FALSE(m_change.changesReach());
}

}  // namespace
}  // namespace Tessel::Tool
