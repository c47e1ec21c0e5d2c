// The C functions on alias tables.
#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "alias/AddressAliasDbMySQL.h"
#include "capi/CallFrame.h"
#include "map/AddressMapMySQL.h"

using Tessel::AddressAliasDb;
using Tessel::AddressAliasDbMySQL;
using Tessel::AddressMapDb;
using Tessel::AddressMapDbMySQL;
using Tessel::EmailAddress;
using Tessel::emailAddressOf;
using Tessel::CInterface::createStore;
using Tessel::CInterface::destroyStore;
using Tessel::CInterface::dropTable;
using Tessel::CInterface::newAddress;
using Tessel::CInterface::newList;
using Tessel::CInterface::run;
using Tessel::CInterface::s_failed;
using Tessel::CInterface::storeOf;
using Tessel::CInterface::tableName;

namespace {

using Members = AddressAliasDbMySQL::Members;
using Entries = AddressAliasDbMySQL::Entries;

// An opened table, and with it its handle: the C interface serves the MySQL store only.
class OpenTable {
 public:
  OpenTable(tsl_address_map map, const char* table)
      : m_handle(storeOf(map).aliasDb(tableName(table))) {}
  AddressAliasDbMySQL* operator->() const {
    return static_cast<AddressAliasDbMySQL*>(m_handle.impl());
  }

 private:
  AddressAliasDb m_handle;
};

// A copy of `text` that is released with delete[].
char* copyToCharArray(const std::string& text) {
  char* copy = new char[text.size() + 1];
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

const char* s_newMembersText(const Members& members) {
  std::ostringstream text;
  // A stream that is short of memory would go on, and the text would lack members.
  text.exceptions(std::ios::badbit);
  AddressAliasDbMySQL::writeMemberSet(members, text);
  return copyToCharArray(text.str());
}

// Functor over a map of aliases: fills the record at `index` of `list` and goes on to the next.
class AdapterAliasMapToAliasEntry {
 public:
  AdapterAliasMapToAliasEntry(tsl_address_alias_list list, std::size_t& index)
      : m_list(list), m_index(index) {}

  void operator()(const Entries::value_type& alias) const {
    tsl_address_alias_entry& entry = m_list[m_index];
    entry.name = newAddress(alias.first);
    entry.members = s_newMembersText(alias.second);
    ++m_index;
  }

 private:
  tsl_address_alias_list m_list;
  std::size_t& m_index;
};

struct DestroyList {
  void operator()(tsl_address_alias_list list) const { tsl_address_alias_list_destroy(list); }
};
struct DestroyEntry {
  void operator()(tsl_address_alias_entry* entry) const { tsl_address_alias_entry_destroy(entry); }
};
struct DestroyContainer {
  void operator()(tsl_emailaddress_container container) const {
    tsl_emailaddress_container_destroy(container);
  }
};

// What has been made so far. It is handed to the caller after the library's own exception, and
// released on the way of any other.
using List = std::unique_ptr<tsl_address_alias_entry[], DestroyList>;
using Entry = std::unique_ptr<tsl_address_alias_entry, DestroyEntry>;
using Container = std::unique_ptr<tsl_emailaddress_container_body, DestroyContainer>;

void s_fillList(const Entries& entries, List& list) {
  if (entries.empty()) return;
  list.reset(newList<tsl_address_alias_entry>(entries.size()));
  std::size_t index = 0;
  std::for_each(entries.begin(), entries.end(), AdapterAliasMapToAliasEntry(list.get(), index));
}

void s_fillContainer(const Members& addresses, Container& container) {
  container.reset(tsl_emailaddress_container_create());
  if (container == nullptr) throw std::bad_alloc();
  for (const EmailAddress& address : addresses) {
    if (tsl_emailaddress_container_append(container.get(), newAddress(address)) != 0) {
      throw std::bad_alloc();
    }
  }
}

// Takes `user` out of the members of one alias.
void s_eraseMember(const OpenTable& table, const EmailAddress& alias, Members members,
                   const EmailAddress& user) {
  if (members.erase(user) == 0) return;
  if (members.empty()) {
    table->queryDelete(alias);
  } else {
    table->queryAdd(alias, members);
  }
}

}  // namespace

tsl_address_map tsl_address_alias_create() {
  return createStore();
}

void tsl_address_alias_destroy(tsl_address_map map) {
  destroyStore(map);
}

void tsl_address_alias_entry_destroy(tsl_address_alias_entry* entry) {
  if (entry == nullptr) return;
  tsl_emailaddress_destroy(entry->name);
  delete[] entry->members;
  delete entry;
}

void tsl_address_alias_list_destroy(tsl_address_alias_list list) {
  if (list == nullptr) return;
  for (const tsl_address_alias_entry* entry = list; entry->name != nullptr; ++entry) {
    tsl_emailaddress_destroy(entry->name);
    delete[] entry->members;
  }
  std::free(list);
}

// Deliberate: here an empty name is the table "alias_", and failures pass.
void tsl_address_alias_table_create(const char* name) {
  if (name == nullptr) return;
  AddressMapDbMySQL backend(false);
  Tessel::createAliasTable(backend.connection(), std::string("alias_") + name);
}

void tsl_address_alias_table_erase(const char* name) {
  if (name == nullptr) return;
  dropTable(std::string("alias_") + name);
}

int tsl_address_alias_add(tsl_address_map map, const tsl_address_alias_entry* entry,
                          const char* table) {
  if (map == nullptr || entry == nullptr) return s_failed;
  if (entry->name == nullptr || entry->members == nullptr) return s_failed;
  return run([&] {
    const Members members = EmailAddress::rfc5322ParseSet(entry->members, true, false);
    OpenTable(map, table)->queryAdd(emailAddressOf(entry->name), members);
  });
}

int tsl_address_alias_erase(tsl_address_map map, tsl_emailaddress alias, const char* table) {
  if (map == nullptr || alias == nullptr) return s_failed;
  return run([&] { OpenTable(map, table)->queryDelete(emailAddressOf(alias)); });
}

int tsl_address_alias_erase_by_domain(tsl_address_map map, const char* domain, const char* table) {
  if (map == nullptr || domain == nullptr) return s_failed;
  return run([&] { OpenTable(map, table)->queryDelete(std::string(domain)); });
}

int tsl_address_alias_erase_member_user(tsl_address_map map, tsl_emailaddress user,
                                        const char* table) {
  if (map == nullptr || user == nullptr) return s_failed;
  return run([&] {
    const OpenTable opened(map, table);
    Entries entries;
    opened->queryFindByMemberUser(emailAddressOf(user), entries);
    for (const auto& [alias, members] : entries) {
      s_eraseMember(opened, alias, members, emailAddressOf(user));
    }
  });
}

tsl_address_alias_entry* tsl_address_alias_find(tsl_address_map map, tsl_emailaddress alias,
                                                const char* table) {
  if (map == nullptr || alias == nullptr) return nullptr;
  Entry entry;
  run([&] {
    Members members;
    OpenTable(map, table)->queryFindMembers(emailAddressOf(alias), members);
    if (members.empty()) return;
    entry.reset(new tsl_address_alias_entry{});
    entry->name = newAddress(emailAddressOf(alias));
    entry->members = s_newMembersText(members);
  });
  return entry.release();
}

tsl_address_alias_list tsl_address_alias_find_by_domain(tsl_address_map map, const char* domain,
                                                        const char* table) {
  if (map == nullptr || domain == nullptr) return nullptr;
  List list;
  run([&] {
    Entries entries;
    OpenTable(map, table)->queryFindByDomain(domain, entries);
    s_fillList(entries, list);
  });
  return list.release();
}

tsl_emailaddress_container tsl_address_alias_expand_alias(tsl_emailaddress address) {
  if (address == nullptr) return nullptr;
  Container container;
  run([&] {
    // Expansion asks only a table whose rows have been counted, which the preload does.
    const AddressMapDb store(AddressMapDb::MySQL, true);
    s_fillContainer(store.aliasDb("").expandAlias(emailAddressOf(address)), container);
  });
  return container.release();
}

int tsl_address_alias_export_to_file(tsl_address_map map, const char* path, const char* table) {
  if (map == nullptr || path == nullptr) return s_failed;
  return run([&] { OpenTable(map, table)->exportToFile(path); });
}

int tsl_address_alias_import_from_file(tsl_address_map map, const char* path, const char* table) {
  if (map == nullptr || path == nullptr) return s_failed;
  return run([&] { OpenTable(map, table)->importFromFile(path); });
}
