// The C functions on address-mask tables.
#include <algorithm>
#include <map>
#include <memory>
#include <string>

#include "capi/CallFrame.h"
#include "map/AddressMapMySQL.h"
#include "mask/AddressMaskMySQL.h"

using Tessel::AddressMapDbMySQL;
using Tessel::AddressMaskDb;
using Tessel::AddressMaskDbMySQL;
using Tessel::EmailAddress;
using Tessel::emailAddressOf;
using Tessel::Exception;
using Tessel::CInterface::answer;
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

using Entries = std::map<EmailAddress, EmailAddress>;

// An opened table, and with it its handle: the C interface serves the MySQL store only.
class OpenTable {
 public:
  OpenTable(tsl_address_map map, const char* table)
      : m_handle(storeOf(map).maskDb(tableName(table))) {}
  AddressMaskDbMySQL* operator->() const {
    return static_cast<AddressMaskDbMySQL*>(m_handle.impl());
  }
  [[nodiscard]] const AddressMaskDb& handle() const { return m_handle; }

 private:
  AddressMaskDb m_handle;
};

// Functor over a map of pairs: fills the record at `index` of `list` and goes on to the next.
class AdapterToMaskEntry {
 public:
  AdapterToMaskEntry(tsl_address_mask_list list, std::size_t& index)
      : m_list(list), m_index(index) {}

  void operator()(const Entries::value_type& pair) const {
    tsl_address_mask_entry& entry = m_list[m_index];
    entry.private_address = newAddress(pair.first);
    entry.public_address = newAddress(pair.second);
    ++m_index;
  }

 private:
  tsl_address_mask_list m_list;
  std::size_t& m_index;
};

struct DestroyList {
  void operator()(tsl_address_mask_list list) const { tsl_address_mask_list_destroy(list); }
};
using List = std::unique_ptr<tsl_address_mask_entry[], DestroyList>;

tsl_address_mask_list s_newList(const Entries& entries) {
  if (entries.empty()) return nullptr;
  List list(newList<tsl_address_mask_entry>(entries.size()));
  std::size_t index = 0;
  try {
    std::for_each(entries.begin(), entries.end(), AdapterToMaskEntry(list.get(), index));
  } catch (const Exception&) {
    // Deliberate: the addresses made so far are not released, and unlike the alias list no part of
    // this one is returned. Pinned by MaskInterface.AFailureWhileTheListIsFilledReturnsNull.
    std::free(list.release());
    throw;
  }
  return list.release();
}

bool s_isWhole(const tsl_address_mask_entry* entry) {
  return entry != nullptr && entry->private_address != nullptr && entry->public_address != nullptr;
}

// The address for a caller: null for the null address.
tsl_emailaddress s_newResult(const EmailAddress& found) {
  return found.isNull() ? nullptr : newAddress(found);
}

}  // namespace

tsl_address_map tsl_address_mask_create() {
  return createStore();
}

void tsl_address_mask_destroy(tsl_address_map map) {
  destroyStore(map);
}

void tsl_address_mask_list_destroy(tsl_address_mask_list list) {
  if (list == nullptr) return;
  for (const tsl_address_mask_entry* entry = list; entry->private_address != nullptr; ++entry) {
    tsl_emailaddress_destroy(entry->private_address);
    tsl_emailaddress_destroy(entry->public_address);
  }
  std::free(list);
}

// Deliberate: here an empty name is the table "mask_", and failures pass, also that of a table that
// exists.
void tsl_address_mask_table_create(const char* name) {
  if (name == nullptr) return;
  AddressMapDbMySQL backend(false);
  Tessel::createMaskTable(backend.connection(), std::string("mask_") + name);
}

void tsl_address_mask_table_erase(const char* name) {
  if (name == nullptr) return;
  dropTable(std::string("mask_") + name);
}

int tsl_address_mask_add(tsl_address_map map, const tsl_address_mask_entry* entry,
                         const char* table) {
  if (map == nullptr || !s_isWhole(entry)) return s_failed;
  return run([&] {
    OpenTable(map, table)
        ->queryAdd(emailAddressOf(entry->private_address), emailAddressOf(entry->public_address));
  });
}

int tsl_address_mask_erase(tsl_address_map map, const tsl_address_mask_entry* entry,
                           const char* table) {
  if (map == nullptr || !s_isWhole(entry)) return s_failed;
  return run([&] {
    OpenTable(map, table)
        ->queryDelete(emailAddressOf(entry->private_address),
                      emailAddressOf(entry->public_address));
  });
}

int tsl_address_mask_erase_by_domain(tsl_address_map map, const char* domain, const char* table) {
  if (map == nullptr || domain == nullptr) return s_failed;
  return run([&] { OpenTable(map, table)->queryDelete(std::string(domain)); });
}

tsl_address_mask_list tsl_address_mask_select(tsl_address_map map, const char* domain,
                                              const char* table) {
  if (map == nullptr || domain == nullptr) return nullptr;
  return answer(tsl_address_mask_list{}, [&] {
    Entries entries;
    OpenTable(map, table).handle().findByMaskedDomain(domain, entries);
    return s_newList(entries);
  });
}

// Deliberate: the table's row alone answers. Rows for whole domains and the cache are passed by.
tsl_emailaddress tsl_address_mask_find_private(tsl_address_map map, tsl_emailaddress public_address,
                                               const char* table) {
  if (map == nullptr || public_address == nullptr) return nullptr;
  return answer(tsl_emailaddress{}, [&] {
    return s_newResult(OpenTable(map, table)->queryPrivateAddress(emailAddressOf(public_address)));
  });
}

tsl_emailaddress tsl_address_mask_find_public(tsl_address_map map, tsl_emailaddress private_address,
                                              const char* table) {
  if (map == nullptr || private_address == nullptr) return nullptr;
  return answer(tsl_emailaddress{}, [&] {
    return s_newResult(OpenTable(map, table)->queryPublicAddress(emailAddressOf(private_address)));
  });
}

int tsl_address_mask_export_to_file(tsl_address_map map, const char* path, const char* table) {
  if (map == nullptr || path == nullptr) return s_failed;
  return run([&] { OpenTable(map, table)->exportToFile(path); });
}

int tsl_address_mask_import_from_file(tsl_address_map map, const char* path, const char* table) {
  if (map == nullptr || path == nullptr) return s_failed;
  return run([&] { OpenTable(map, table)->importFromFile(path); });
}
