// What every function of the C interface does when the database fails: the result that its
// declaration names, nothing thrown but where that says so, and a store that works on.
#include "capi/CallFrame.h"

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Caught.h"
#include "support/MapDatabase.h"
#include "tests/capi/cases.h"

namespace Tessel {
namespace {

class CInterfaceFaults : public Testing::MapDatabase {
 protected:
  void SetUp() override {
    MapDatabase::SetUp();
    addAlias("team@d.example", "bob@d.example");
    m_map = tsl_address_alias_create();
    ASSERT_NE(m_map, nullptr);
    m_address = tsl_emailaddress_parse("team@d.example");
    m_alias = {m_address, "bob@d.example"};
    m_mask = {m_address, m_address};
  }
  void TearDown() override {
    tsl_emailaddress_destroy(m_address);
    tsl_address_alias_destroy(m_map);
  }

  // Every function that asks the database with a store: its name, and whether it says "failed".
  struct Call {
    const char* name;
    std::function<bool()> fails;
  };
  std::vector<Call> callsOn(const char* table) {
    return {
        {"alias_add", [=, this] { return tsl_address_alias_add(m_map, &m_alias, table) == -1; }},
        {"alias_erase",
         [=, this] { return tsl_address_alias_erase(m_map, m_address, table) == -1; }},
        {"alias_erase_by_domain",
         [=, this] { return tsl_address_alias_erase_by_domain(m_map, "d.example", table) == -1; }},
        {"alias_erase_member_user",
         [=, this] { return tsl_address_alias_erase_member_user(m_map, m_address, table) == -1; }},
        {"alias_find",
         [=, this] { return tsl_address_alias_find(m_map, m_address, table) == nullptr; }},
        {"alias_find_by_domain",
         [=, this] { return tsl_address_alias_find_by_domain(m_map, "*", table) == nullptr; }},
        {"alias_export_to_file",
         [=, this] { return tsl_address_alias_export_to_file(m_map, "/dev/null", table) == -1; }},
        {"alias_import_from_file",
         [=, this] {
           return tsl_address_alias_import_from_file(m_map, s_aliasFile().c_str(), table) == -1;
         }},
        {"mask_add", [=, this] { return tsl_address_mask_add(m_map, &m_mask, table) == -1; }},
        {"mask_erase", [=, this] { return tsl_address_mask_erase(m_map, &m_mask, table) == -1; }},
        {"mask_erase_by_domain",
         [=, this] { return tsl_address_mask_erase_by_domain(m_map, "d.example", table) == -1; }},
        {"mask_select",
         [=, this] { return tsl_address_mask_select(m_map, "*", table) == nullptr; }},
        {"mask_find_private",
         [=, this] { return tsl_address_mask_find_private(m_map, m_address, table) == nullptr; }},
        {"mask_find_public",
         [=, this] { return tsl_address_mask_find_public(m_map, m_address, table) == nullptr; }},
        {"mask_export_to_file",
         [=, this] { return tsl_address_mask_export_to_file(m_map, "/dev/null", table) == -1; }},
        {"mask_import_from_file",
         [=, this] {
           return tsl_address_mask_import_from_file(m_map, s_aliasFile().c_str(), table) == -1;
         }},
    };
  }
  void expectAllFail(const char* table) {
    for (const Call& call : callsOn(table)) EXPECT_TRUE(call.fails()) << call.name;
  }
  void expectNoneOfTheWritesFails() {
    for (const Call& call : callsOn(nullptr)) {
      const std::string name = call.name;
      // A lookup that finds nothing answers like one that fails.
      if (name.find("find") != std::string::npos || name == "mask_select") continue;
      EXPECT_FALSE(call.fails()) << name;
    }
  }

  // One line that both kinds of table can import.
  static std::string s_aliasFile() {
    std::string path = Testing::TestServer::shared().directory() + "/one-line";
    std::ofstream(path) << "x@d.example:y@d.example\n";
    return path;
  }

  tsl_address_map m_map = nullptr;
  tsl_emailaddress m_address = nullptr;
  tsl_address_alias_entry m_alias{};
  tsl_address_mask_entry m_mask{};
};

TEST_F(CInterfaceFaults, ATableThatIsNotThereFailsEveryFunction) {
  expectAllFail("none");
  expectNoneOfTheWritesFails();
}

TEST_F(CInterfaceFaults, ADroppedDefaultTableFailsEveryFunction) {
  sql("drop table ts_address_map.alias, ts_address_map.mask");
  expectAllFail(nullptr);
  EXPECT_EQ(tsl_address_alias_expand_alias(m_address), nullptr);
}

TEST_F(CInterfaceFaults, AStoreWorksOnAfterTheServerWasAway) {
  makeDurable();
  Testing::TestServer& server = Testing::TestServer::shared();
  server.kill();
  expectAllFail(nullptr);
  EXPECT_EQ(tsl_address_alias_create(), nullptr);
  EXPECT_EQ(tsl_address_mask_create(), nullptr);
  EXPECT_EQ(tsl_address_alias_expand_alias(m_address), nullptr);
  EXPECT_EQ(tsl_address_alias_extensions_create(), nullptr);
  EXPECT_EQ(tsl_address_mask_extensions_create(), nullptr);
  server.restart();
  expectNoneOfTheWritesFails();
  tsl_address_alias_entry* found = tsl_address_alias_find(m_map, m_address, nullptr);
  EXPECT_EQ(found, nullptr) << "the writes before removed it";
  tsl_address_alias_entry_destroy(found);
}

TEST_F(CInterfaceFaults, TheTableFunctionsLetFailuresOut) {
  Testing::TestServer& server = Testing::TestServer::shared();
  makeDurable();
  server.kill();
  const std::vector<void (*)(const char*)> functions = {
      tsl_address_alias_table_create, tsl_address_alias_table_erase, tsl_address_mask_table_create,
      tsl_address_mask_table_erase};
  for (const auto function : functions) {
    EXPECT_EQ(Testing::caught([&] { function("sales"); }).code(), 2002);
  }
  server.restart();
}

TEST_F(CInterfaceFaults, AWrongPasswordGivesNoStore) {
  const auto file = Testing::TestServer::shared().useAccount("capi", "right", "");
  file.write("[client]\nsocket=" + Testing::TestServer::shared().socketPath() +
             "\nuser=capi\npassword=wrong\n");
  EXPECT_EQ(tsl_address_alias_create(), nullptr);
  EXPECT_EQ(tsl_address_alias_expand_alias(m_address), nullptr);
}

TEST_F(CInterfaceFaults, ARowThatDoesNotParseFailsTheLookupsThatMeetIt) {
  sql("insert into ts_address_map.alias ( name, members ) values( 'bad@d.example','a..b@d' )");
  tsl_emailaddress bad = tsl_emailaddress_parse("bad@d.example");
  EXPECT_EQ(tsl_address_alias_find(m_map, bad, nullptr), nullptr);
  EXPECT_EQ(tsl_address_alias_find_by_domain(m_map, "d.example", nullptr), nullptr);
  EXPECT_EQ(tsl_address_alias_expand_alias(m_address), nullptr);
  tsl_address_alias_entry* found = tsl_address_alias_find(m_map, m_address, nullptr);
  EXPECT_NE(found, nullptr);
  tsl_address_alias_entry_destroy(found);
  tsl_emailaddress_destroy(bad);
}

TEST(CInterfaceCallFrame, OnlyTheLibrarysExceptionIsCaught) {
  using CInterface::answer;
  using CInterface::run;
  EXPECT_EQ(run([] { throw Exception("test", 4, nullptr, 0); }), -1);
  EXPECT_EQ(run([] {}), 0);
  EXPECT_THROW(run([] { throw std::bad_alloc(); }), std::bad_alloc);
  EXPECT_THROW(run([] { throw std::out_of_range("test"); }), std::out_of_range);
  EXPECT_EQ(answer(7, []() -> int { throw Exception("test", 4, nullptr, 0); }), 7);
}

}  // namespace
}  // namespace Tessel
