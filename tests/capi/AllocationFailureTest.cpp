// Every function of the C interface with too little memory: each allocation on its way fails in
// turn. None may crash, keep a lock, lose what it made, or leave the store unusable.
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "support/MapDatabase.h"
#include "tsl_address_map.h"

namespace {

// Allocations until one fails; negative: none does. Only the thread under test is short of memory.
thread_local long s_left = -1;
thread_local bool s_failed = false;

bool s_mayAllocate() {
  if (s_left < 0 || s_failed) return true;
  if (s_left-- > 0) return true;
  s_failed = true;
  return false;
}

void* s_allocate(std::size_t size) {
  return s_mayAllocate() ? std::malloc(size != 0 ? size : 1) : nullptr;
}

void* s_allocateOrThrow(std::size_t size) {
  void* memory = s_allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

// The linker gives these names to a wrapped function.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" void* __real_calloc(std::size_t count, std::size_t size);
extern "C" void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return s_mayAllocate() ? __real_calloc(count, size) : nullptr;
}
// NOLINTEND(bugprone-reserved-identifier)

void* operator new(std::size_t size) {
  return s_allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return s_allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return s_allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return s_allocate(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace Tessel {
namespace {

// As long as addresses may be: most statements with them outgrow the room that a query has without
// asking for memory.
std::string s_longDomain() {
  std::string domain;
  for (const char letter : {'a', 'b', 'c'}) domain += std::string(60, letter) + '.';
  return domain + "example";
}
const std::string s_domain = s_longDomain();
const std::string s_team = "team@" + s_domain;
const std::string s_bob = std::string(60, 'b') + "@" + s_domain;
const std::string s_members = s_bob + ",carl@" + s_domain;
const std::string s_private = std::string(60, 'p') + "@" + s_domain;
const std::string s_quotes = std::string(60, '\'') + "@" + s_domain;  // Escaped, twice as many.
const std::string s_public = std::string(60, 'q') + "@" + s_domain;

class WithoutMemory : public Testing::MapDatabase {
 protected:
  void SetUp() override {
    MapDatabase::SetUp();
    addAlias(s_team, s_members);
    addAlias("b@" + s_domain, s_bob);
    sql("insert into ts_address_map.mask values( '" + s_private + "','" + s_public + "' )");
    m_map = tsl_address_alias_create();
    ASSERT_NE(m_map, nullptr);
    m_team = tsl_emailaddress_parse(s_team.c_str());
    m_bob = tsl_emailaddress_parse(s_bob.c_str());
    m_quotes = tsl_emailaddress_parse(s_quotes.c_str());
    m_private = tsl_emailaddress_parse(s_private.c_str());
    m_public = tsl_emailaddress_parse(s_public.c_str());
    m_path = Testing::TestServer::shared().directory() + "/lines";
  }
  void TearDown() override {
    for (tsl_emailaddress address : {m_team, m_bob, m_quotes, m_private, m_public}) {
      tsl_emailaddress_destroy(address);
    }
    tsl_address_alias_destroy(m_map);
  }

  // Runs `call` with its first allocation failing, then its second, and so on, until it comes
  // through without one failing, each time behind `prepare`. It returns whether its result is
  // whole, which it must be where it does not throw: the call did without that memory. After each
  // failure the store must answer.
  void failEachAllocation(
      const std::function<bool()>& call, const std::function<void()>& prepare = [] {}) {
    long thrown = 0;
    long count = 0;
    for (bool failed = true; failed; ++count) {
      ASSERT_LT(count, 100000);
      prepare();
      s_failed = false;
      s_left = count;
      bool whole = true;
      try {
        whole = call();
      } catch (const std::bad_alloc&) {
        ++thrown;
      }
      s_left = -1;
      failed = s_failed;
      EXPECT_TRUE(whole) << "allocation " << count << (failed ? " failed" : " was not needed");
      expectUsable(count);
      if (HasFailure()) return;
    }
    EXPECT_GT(thrown, 0) << "of " << count << " calls none let std::bad_alloc out";
  }

  void expectUsable(long count) {
    tsl_address_alias_entry* found = tsl_address_alias_find(m_map, m_team, nullptr);
    ASSERT_NE(found, nullptr) << "after allocation " << count << " failed";
    tsl_address_alias_entry_destroy(found);
  }

  // A call that returns an int is whole when it says so.
  void failEachAllocationOf(const std::function<int()>& call) {
    failEachAllocation([&] { return call() == 0; });
  }

  tsl_address_map m_map = nullptr;
  tsl_emailaddress m_team = nullptr;
  tsl_emailaddress m_bob = nullptr;
  tsl_emailaddress m_quotes = nullptr;
  tsl_emailaddress m_private = nullptr;
  tsl_emailaddress m_public = nullptr;
  std::string m_path;
};

TEST_F(WithoutMemory, AliasCreate) {
  failEachAllocation([] {
    tsl_address_map map = tsl_address_alias_create();
    const bool whole = map != nullptr;
    tsl_address_alias_destroy(map);
    return whole;
  });
}

TEST_F(WithoutMemory, AliasAdd) {
  const tsl_address_alias_entry entry{m_team, s_members.c_str()};
  failEachAllocationOf([&] { return tsl_address_alias_add(m_map, &entry, nullptr); });
}

TEST_F(WithoutMemory, AliasErase) {
  failEachAllocationOf([&] { return tsl_address_alias_erase(m_map, m_bob, nullptr); });
}

TEST_F(WithoutMemory, AliasEraseByDomain) {
  failEachAllocationOf(
      [&] { return tsl_address_alias_erase_by_domain(m_map, "none.example", nullptr); });
}

TEST_F(WithoutMemory, AliasEraseMemberUser) {
  failEachAllocationOf([&] { return tsl_address_alias_erase_member_user(m_map, m_bob, nullptr); });
}

TEST_F(WithoutMemory, AliasFindNeverReturnsHalfOfAnEntry) {
  failEachAllocation([&] {
    tsl_address_alias_entry* found = tsl_address_alias_find(m_map, m_team, nullptr);
    const bool whole =
        found != nullptr && found->name != nullptr && std::string_view(found->members) == s_members;
    EXPECT_TRUE(whole || found == nullptr);
    tsl_address_alias_entry_destroy(found);
    return whole;
  });
}

TEST_F(WithoutMemory, AliasFindByDomainNeverReturnsPartOfAList) {
  failEachAllocation([&] {
    tsl_address_alias_list list =
        tsl_address_alias_find_by_domain(m_map, s_domain.c_str(), nullptr);
    const bool whole = list != nullptr && list[0].name != nullptr && list[1].name != nullptr;
    EXPECT_TRUE(whole || list == nullptr);
    tsl_address_alias_list_destroy(list);
    return whole;
  });
}

TEST_F(WithoutMemory, AliasExpandNeverReturnsPartOfAnExpansion) {
  failEachAllocation([&] {
    tsl_emailaddress_container reached = tsl_address_alias_expand_alias(m_team);
    const bool whole = tsl_emailaddress_container_size(reached) == 2;
    EXPECT_TRUE(whole || reached == nullptr);
    tsl_emailaddress_container_destroy(reached);
    return whole;
  });
}

TEST_F(WithoutMemory, AliasFiles) {
  std::ofstream(m_path) << "x@d.example:y@d.example\n";
  failEachAllocationOf(
      [&] { return tsl_address_alias_import_from_file(m_map, m_path.c_str(), nullptr); });
  failEachAllocationOf(
      [&] { return tsl_address_alias_export_to_file(m_map, "/dev/null", nullptr); });
}

TEST_F(WithoutMemory, AliasTables) {
  failEachAllocation([] {
    tsl_address_alias_table_create("sales");
    return true;
  });
  failEachAllocation(
      [] {
        tsl_address_alias_table_erase("sales");
        return true;
      },
      [] { sql("create table if not exists ts_address_map.alias_sales ( a int )"); });
}

TEST_F(WithoutMemory, ATableWithALongName) {
  const std::string table(57, 't');
  const char* const name = table.c_str();
  tsl_address_alias_table_create(name);
  const tsl_address_alias_entry entry{m_quotes, s_bob.c_str()};
  ASSERT_EQ(tsl_address_alias_add(m_map, &entry, name), 0);
  failEachAllocation([&] {
    tsl_address_alias_entry* found = tsl_address_alias_find(m_map, m_quotes, name);
    const bool whole = found != nullptr;
    tsl_address_alias_entry_destroy(found);
    return whole;
  });
  failEachAllocation([&] {
    tsl_address_alias_list found = tsl_address_alias_find_by_domain(m_map, "*", name);
    const bool whole = found != nullptr;
    tsl_address_alias_list_destroy(found);
    return whole;
  });
  failEachAllocationOf([&] { return tsl_address_alias_erase(m_map, m_quotes, name); });
}

TEST_F(WithoutMemory, LookupsOfTheClassesNeverAnswerNone) {
  std::unique_ptr<AddressMapDb> store;
  const auto open = [&] { store = std::make_unique<AddressMapDb>(AddressMapDb::MySQL, true); };
  const auto stay = [] {};
  const EmailAddress team = address(s_team);
  // More than a cache holds: of the two below, the first and the last by text, one is in the table
  // only.
  std::string rows;
  for (int i = 0; i < 1100; ++i) {
    const std::string number = std::to_string(i);
    rows += (i == 0 ? "( 'p" : ",( 'p") + number + "@d.example','q" + number + "@e.example' )";
  }
  sql("insert into ts_address_map.mask values " + rows);
  sql("insert into ts_address_map.mask values( '*@w.example','*@x.example' )");
  // First in the table, then in the cache.
  for (const std::function<void()>& prepare : {std::function<void()>(open), {stay}}) {
    failEachAllocation([&] { return store->aliasDb("").expandAlias(team).size() == 2; }, prepare);
    failEachAllocation(
        [&] {
          std::set<EmailAddress> names;
          store->aliasDb("").getAliasNames(names);
          return names.size() == 2;
        },
        prepare);
    for (const std::string number : {"0", "999"}) {
      const EmailAddress inside = address("p" + number + "@d.example");
      const EmailAddress outside = address("q" + number + "@e.example");
      failEachAllocation([&] { return store->maskDb("").findPublicAddress(inside) == outside; },
                         prepare);
      failEachAllocation([&] { return store->maskDb("").findPrivateAddress(outside) == inside; },
                         prepare);
    }
    failEachAllocation(
        [&] {
          return store->maskDb("").findPublicAddress(address("a@w.example")) ==
                 address("a@x.example");
        },
        prepare);
    failEachAllocation(
        [&] {
          std::map<EmailAddress, EmailAddress> entries;
          store->maskDb("").findByMaskedDomain("w.example", entries);
          return entries.size() == 1;
        },
        prepare);
  }
}

TEST_F(WithoutMemory, OpeningATable) {
  tsl_address_alias_table_create("sales");
  const tsl_address_alias_entry entry{m_team, s_bob.c_str()};
  failEachAllocationOf([&] { return tsl_address_alias_add(m_map, &entry, "sales"); });
}

TEST_F(WithoutMemory, MaskAddAndErase) {
  const tsl_address_mask_entry entry{m_private, m_public};
  failEachAllocationOf([&] { return tsl_address_mask_add(m_map, &entry, nullptr); });
  failEachAllocationOf([&] { return tsl_address_mask_erase(m_map, &entry, nullptr); });
  failEachAllocationOf(
      [&] { return tsl_address_mask_erase_by_domain(m_map, "none.example", nullptr); });
}

TEST_F(WithoutMemory, MaskSelectNeverReturnsPartOfAList) {
  failEachAllocation([&] {
    tsl_address_mask_list list = tsl_address_mask_select(m_map, "*", nullptr);
    const bool whole =
        list != nullptr && list[0].private_address != nullptr && list[0].public_address != nullptr;
    EXPECT_TRUE(whole || list == nullptr);
    tsl_address_mask_list_destroy(list);
    return whole;
  });
}

TEST_F(WithoutMemory, MaskFind) {
  failEachAllocation([&] {
    tsl_emailaddress found = tsl_address_mask_find_public(m_map, m_private, nullptr);
    const bool whole = found != nullptr;
    tsl_emailaddress_destroy(found);
    return whole;
  });
  failEachAllocation([&] {
    tsl_emailaddress found = tsl_address_mask_find_private(m_map, m_public, nullptr);
    const bool whole = found != nullptr;
    tsl_emailaddress_destroy(found);
    return whole;
  });
}

TEST_F(WithoutMemory, MaskFiles) {
  std::ofstream(m_path) << "x@d.example:y@d.example\n";
  failEachAllocationOf(
      [&] { return tsl_address_mask_import_from_file(m_map, m_path.c_str(), nullptr); });
  failEachAllocationOf(
      [&] { return tsl_address_mask_export_to_file(m_map, "/dev/null", nullptr); });
}

// The functions on names catch everything, so a failed call shows as NULL.
TEST_F(WithoutMemory, ExtensionsGiveNull) {
  tsl_address_alias_table_create("sales");
  bool failed = true;
  for (long count = 0; failed; ++count) {
    ASSERT_LT(count, 100000);
    s_failed = false;
    s_left = count;
    tsl_address_map_extensions names = nullptr;
    EXPECT_NO_THROW(names = tsl_address_alias_extensions_create());
    s_left = -1;
    failed = s_failed;
    if (names != nullptr) {
      ASSERT_NE(tsl_address_map_extensions_get(names), nullptr);
      EXPECT_STREQ(tsl_address_map_extensions_get(names)[0], "sales");
    }
    EXPECT_TRUE(failed || names != nullptr);
    tsl_address_map_extensions_destroy(names);
  }
}

}  // namespace
}  // namespace Tessel
