// Pins the layout of stores, tables, rows and handles: other programs were compiled against it.
// This source is compiled without access control, because the order of private fields counts.
#include <map>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "AddressMapDb.h"
#include "alias/AddressAliasDbMySQL.h"
#include "alias/AddressAliasRow.h"
#include "alias/AliasExpander.h"
#include "map/AddressAliasDbImpl.h"
#include "map/AddressMapMySQL.h"
#include "map/AddressMaskDbImpl.h"
#include "map/FakeStore.h"
#include "map/TsRowParser.h"
#include "mask/AddressMaskMySQL.h"
#include "mask/AddressMaskRow.h"
#include "support/Layout.h"
#include "support/MapDatabase.h"

namespace Tessel {
namespace {

using Testing::addressOf;
using Testing::standInOrder;
using Testing::virtualSlot;

// The complete and the deleting destructor take the slots 0 and 1 of every class here.

TEST(MapLayout, VirtualOperationsOfTheAbstractClassesStandInTheirSlots) {
  EXPECT_EQ(virtualSlot(&AddressMapDbImpl::createMaskDbImpl), 2);
  EXPECT_EQ(virtualSlot(&AddressMapDbImpl::createAliasDbImpl), 3);
  EXPECT_EQ(virtualSlot(&AddressAliasDbImpl::expandAlias), 2);
  EXPECT_EQ(virtualSlot(&AddressAliasDbImpl::getAliasNames), 3);
  EXPECT_EQ(virtualSlot(&AddressAliasDbImpl::exportToFile), 4);
  EXPECT_EQ(virtualSlot(&AddressAliasDbImpl::importFromFile), 5);
  EXPECT_EQ(virtualSlot(&AddressMaskDbImpl::findPublicAddress), 2);
  EXPECT_EQ(virtualSlot(&AddressMaskDbImpl::findPrivateAddress), 3);
  EXPECT_EQ(virtualSlot(&AddressMaskDbImpl::findByMaskedDomain), 4);
  EXPECT_EQ(virtualSlot(&AddressMaskDbImpl::exportToFile), 5);
  EXPECT_EQ(virtualSlot(&AddressMaskDbImpl::importFromFile), 6);
}

TEST(MapLayout, VirtualOperationsOfTheStoreAndItsTablesStandInTheirSlots) {
  EXPECT_EQ(virtualSlot(&AddressMapDbMySQL::createMaskDbImpl), 2);
  EXPECT_EQ(virtualSlot(&AddressMapDbMySQL::createAliasDbImpl), 3);
  EXPECT_EQ(virtualSlot(&AddressAliasDbMySQL::expandAlias), 2);
  EXPECT_EQ(virtualSlot(&AddressAliasDbMySQL::queryFindByDomain), 6);
  EXPECT_EQ(virtualSlot(&AddressAliasDbMySQL::queryFindByMemberUser), 7);
  EXPECT_EQ(virtualSlot(&AddressAliasDbMySQL::queryFindMembers), 8);
  EXPECT_EQ(virtualSlot(&AddressAliasDbMySQL::queryEntries), -1);
  EXPECT_EQ(virtualSlot(&AddressAliasDbMySQL::queryAdd), -1);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::findPublicAddress), 2);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::findPrivateAddress), 3);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::findByMaskedDomain), 4);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::exportToFile), 5);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::importFromFile), 6);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::queryPublicAddress), 7);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::queryPrivateAddress), 8);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::queryAdd), -1);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::queryEntries), -1);
  EXPECT_EQ(virtualSlot(&AddressMaskDbMySQL::queryWildCards), -1);
}

TEST(MapLayout, VirtualOperationsOfRowsAndParsersStandInTheirSlots) {
  EXPECT_EQ(virtualSlot(&AddressAliasRow::parse), 2);
  EXPECT_EQ(virtualSlot(&Database::AddressMaskRow::parse), 2);
  EXPECT_EQ(virtualSlot(&Database::TsRowParser<AddressAliasRow>::parse), 2);
  EXPECT_EQ(virtualSlot(&Database::TsRowParser<Database::AddressMaskRow>::parse), 2);
}

TEST(MapLayout, ClassTreesAreAsTheyWereCompiledAgainst) {
  static_assert(!std::is_polymorphic_v<AddressMapDb>);
  static_assert(std::has_virtual_destructor_v<AddressAliasDb>);
  static_assert(std::has_virtual_destructor_v<AddressMaskDb>);
  static_assert(sizeof(AddressMapDb) == sizeof(void*));
  static_assert(sizeof(AddressAliasDb) == 2 * sizeof(void*));
  static_assert(sizeof(AddressMaskDb) == 2 * sizeof(void*));
  static_assert(std::is_base_of_v<RefImpl, AddressMapDbImpl>);
  static_assert(std::is_base_of_v<AddressMapDbImpl, AddressMapDbMySQL>);
  static_assert(std::is_base_of_v<AddressAliasDbImpl, AddressAliasDbMySQL>);
  static_assert(std::is_base_of_v<AddressMaskDbImpl, AddressMaskDbMySQL>);
  static_assert(std::is_base_of_v<Database::RowImpl, AddressAliasRow>);
  static_assert(std::is_base_of_v<Database::RowImpl, Database::AddressMaskRow>);
  static_assert(std::is_base_of_v<NonCopyable, Database::RowImpl>);
  static_assert(std::is_base_of_v<Database::AllRowParser, Database::TsRowParser<AddressAliasRow>>);
  static_assert(
      std::is_base_of_v<Database::AllRowParser, Database::TsRowParser<Database::AddressMaskRow>>);
  static_assert(std::is_base_of_v<Database::RowParser, Database::AllRowParser>);
  static_assert(std::is_base_of_v<RefImpl, AddressMaskDbImpl>);
  static_assert(std::has_virtual_destructor_v<AddressMaskDbMySQL>);
  static_assert(std::has_virtual_destructor_v<Database::AddressMaskRow>);
  static_assert(static_cast<int>(AddressMapDb::MySQL) == 1);
  SUCCEED();
}

// A base that is not virtual can be converted back by static_cast; a virtual one cannot.
template <class Base, class Derived, class = void>
struct IsVirtualBase : std::true_type {};
template <class Base, class Derived>
struct IsVirtualBase<Base, Derived,
                     std::void_t<decltype(static_cast<Derived*>(std::declval<Base*>()))>>
    : std::false_type {};

TEST(MapLayout, OnlyStoresAndRowsHoldTheCountInAVirtualBase) {
  static_assert(IsVirtualBase<RefImpl, AddressMapDbImpl>::value);
  static_assert(IsVirtualBase<RefImpl, Database::RowImpl>::value);
  static_assert(!IsVirtualBase<RefImpl, AddressAliasDbImpl>::value);
  static_assert(!IsVirtualBase<RefImpl, AddressMaskDbImpl>::value);
  SUCCEED();
}

TEST(MapLayout, FieldsOfTheAbstractStoreStandInOrder) {
  Testing::StoreEvents events;
  const AddressMapDb handle = Testing::handleOver(new Testing::FakeStore(events));
  const AddressMapDbImpl& store = *handle.m_wrapper->body();
  EXPECT_TRUE(standInOrder(addressOf(store.m_maskDbsMutex), addressOf(store.m_maskDbs),
                           addressOf(store.m_aliasDbsMutex), addressOf(store.m_aliasDbs)));
}

using MapLayoutOnServer = Testing::MapDatabase;

TEST_F(MapLayoutOnServer, AFreshStoreHoldsExactlyTheTwoDefaultTables) {
  const AddressMapDb handle(AddressMapDb::MySQL, true);
  const AddressMapDbImpl& store = *handle.m_wrapper->body();
  ASSERT_EQ(store.m_maskDbs.size(), 1U);
  ASSERT_EQ(store.m_aliasDbs.size(), 1U);
  EXPECT_EQ(store.m_maskDbs.begin()->first, "");
  EXPECT_EQ(store.m_aliasDbs.begin()->first, "");
}

TEST_F(MapLayoutOnServer, FieldsOfTheStoreAndItsTablesStandInOrder) {
  AddressMapDbMySQL store(false);
  EXPECT_TRUE(standInOrder(addressOf(store.m_aliasDbs), addressOf(store.m_mutex),
                           addressOf(store.m_databaseName), addressOf(store.m_connection),
                           addressOf(store.m_preload)));
  EXPECT_EQ(store.m_databaseName, "ts_address_map");

  // A reference has no address of its own: it fills the place between the base and the next field.
  const AddressAliasDbMySQL alias(store, false, "");
  EXPECT_TRUE(standInOrder(addressOf(alias.m_noAddresses), addressOf(alias.m_mutex),
                           addressOf(alias.m_table), addressOf(alias.m_cache),
                           addressOf(alias.m_entries)));
  EXPECT_EQ(addressOf(alias.m_mutex) - addressOf(alias.m_noAddresses),
            static_cast<std::ptrdiff_t>(sizeof(std::set<EmailAddress>) + sizeof(void*)));
  EXPECT_EQ(&alias.m_mapDb, &store);
  EXPECT_EQ(alias.m_mutex, &store.m_mutex);
  static_assert(sizeof(alias.m_entries) == 4);

  const AddressMaskDbMySQL mask(store, false, "");
  EXPECT_TRUE(standInOrder(addressOf(mask.m_noAddress), addressOf(mask.m_mutex),
                           addressOf(mask.m_table), addressOf(mask.m_cache),
                           addressOf(mask.m_entries), addressOf(mask.m_wildCards)));
  EXPECT_EQ(addressOf(mask.m_mutex) - addressOf(mask.m_noAddress),
            static_cast<std::ptrdiff_t>(sizeof(EmailAddress) + sizeof(void*)));
  EXPECT_EQ(&mask.m_mapDb, &store);
  EXPECT_EQ(mask.m_mutex, &store.m_mutex);
  static_assert(sizeof(mask.m_entries) == 4);
  static_assert(std::is_same_v<decltype(mask.m_wildCards), std::map<std::string, std::string>>);
}

TEST_F(MapLayoutOnServer, TableNamesAndCachesAreThoseOfTheStoreName) {
  AddressMapDbMySQL store(false);
  const AddressAliasDbMySQL alias(store, false, "");
  const AddressAliasDbMySQL named(store, false, "sales");
  const AddressMaskDbMySQL mask(store, false, "");
  const AddressMaskDbMySQL namedMask(store, false, "sales");
  EXPECT_EQ(alias.m_table, "alias");
  EXPECT_EQ(named.m_table, "alias_sales");
  EXPECT_EQ(mask.m_table, "mask");
  EXPECT_EQ(namedMask.m_table, "mask_sales");
  EXPECT_EQ(alias.m_cache.m_capacity, 256U);
  EXPECT_EQ(mask.m_cache.m_capacity, 1024U);
}

TEST(MapLayout, FieldsOfRowsStandInOrder) {
  const AddressAliasRow alias;
  EXPECT_TRUE(standInOrder(addressOf(alias.m_alias), addressOf(alias.m_members)));
  EXPECT_TRUE(alias.alias().isNull());
  EXPECT_TRUE(alias.members().empty());
  const Database::AddressMaskRow mask;
  EXPECT_TRUE(standInOrder(addressOf(mask.m_private), addressOf(mask.m_public)));
  EXPECT_TRUE(mask.privateAddress().isNull());
  EXPECT_TRUE(mask.publicAddress().isNull());
}

TEST(MapLayout, ParsersAndFunctorsHoldTheirContainerAndNothingElse) {
  Database::RowContainer rows;
  const Database::TsRowParser<Database::AddressMaskRow> parser(rows);
  static_assert(sizeof(parser) == 2 * sizeof(void*));
  EXPECT_EQ(parser.m_rows, &rows);
  static_assert(!std::is_polymorphic_v<AdapterMaskRowToEntryContainer>);
  static_assert(!std::is_polymorphic_v<AdapterMaskRowToWildCardContainer>);
  static_assert(sizeof(AdapterMaskRowToEntryContainer) == sizeof(void*));
  static_assert(sizeof(AdapterMaskRowToWildCardContainer) == sizeof(void*));
}

TEST_F(MapLayoutOnServer, AFreshMaskTableHasCountedNothingAndAPreloadCountsAllAndCaches1024) {
  AddressMapDbMySQL store(false);
  std::string values = "( '*@a.example','*@b.example' )";
  for (int i = 0; i < 2000; ++i) {
    const std::string number = std::to_string(i);
    values += ",( 'p" + number + "@d.example','q" + number + "@e.example' )";
  }
  sql("insert into ts_address_map.mask values " + values);
  const AddressMaskDbMySQL fresh(store, false, "");
  EXPECT_EQ(fresh.m_entries, 0U);
  EXPECT_EQ(fresh.m_cache.m_size, 0U);
  EXPECT_TRUE(fresh.m_wildCards.empty());
  const AddressMaskDbMySQL table(store, true, "");
  EXPECT_EQ(table.m_entries, 2000U);
  EXPECT_EQ(table.m_cache.m_size, 1024U);
  EXPECT_EQ(table.m_wildCards, (std::map<std::string, std::string>{{"a.example", "b.example"}}));
}

TEST(MapLayout, FieldsOfTheExpandersStandInOrder) {
  const AliasExpander expander{nullptr, nullptr, nullptr, nullptr};
  EXPECT_TRUE(standInOrder(addressOf(expander.store), addressOf(expander.requested),
                           addressOf(expander.result), addressOf(expander.visited)));
  LRUCache<EmailAddress, std::set<EmailAddress>> cache(1);
  std::set<EmailAddress> result;
  const AdapterExpanderNoQuery memory(cache, result);
  EXPECT_TRUE(standInOrder(addressOf(memory.m_source), addressOf(memory.m_result),
                           addressOf(memory.m_visited)));
  const CacheLoader loader(cache, cache);
  EXPECT_TRUE(standInOrder(addressOf(loader.m_source), addressOf(loader.m_target)));
}

TEST(MapLayout, FieldsOfTheCacheStandInOrder) {
  const LRUCache<int, int> cache(1);
  EXPECT_TRUE(standInOrder(addressOf(cache.m_mutex), addressOf(cache.m_size),
                           addressOf(cache.m_capacity), addressOf(cache.m_recent),
                           addressOf(cache.m_index)));
  static_assert(sizeof(cache.m_size) == 4 && sizeof(cache.m_capacity) == 4);
}

}  // namespace
}  // namespace Tessel
