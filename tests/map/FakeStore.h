// Store and tables without a database, for the tests of handles and of the registry.
#ifndef TSL_TESTS_MAP_FAKESTORE_H
#define TSL_TESTS_MAP_FAKESTORE_H

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "AddressMapDb.h"
#include "map/AddressAliasDbImpl.h"
#include "map/AddressMapDbImpl.h"
#include "map/AddressMaskDbImpl.h"

namespace Tessel::Testing {

// An alias table that notes which operation was called with what.
class FakeAliasTable : public AddressAliasDbImpl {
 public:
  explicit FakeAliasTable(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
  ~FakeAliasTable() override { ++m_destroyed; }

  [[nodiscard]] std::set<EmailAddress> expandAlias(const EmailAddress& address) const override {
    m_calls.push_back("expandAlias " + address.address());
    return {address};
  }
  void getAliasNames(std::set<EmailAddress>& names) const override {
    m_calls.emplace_back("getAliasNames");
    names.insert(EmailAddress::rfc5321Parse("name@d.example", false));
  }
  void exportToFile(const std::string& path) override { m_calls.push_back("exportToFile " + path); }
  void importFromFile(const std::string& path) override {
    m_calls.push_back("importFromFile " + path);
  }

  mutable std::vector<std::string> m_calls;

 private:
  std::atomic<int>& m_destroyed;
};

// A mask table that notes which operation was called with what.
class FakeMaskTable : public AddressMaskDbImpl {
 public:
  explicit FakeMaskTable(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
  ~FakeMaskTable() override { ++m_destroyed; }

  [[nodiscard]] EmailAddress findPublicAddress(const EmailAddress& address) const override {
    m_calls.push_back("findPublicAddress " + address.address());
    return address;
  }
  [[nodiscard]] EmailAddress findPrivateAddress(const EmailAddress& address) const override {
    m_calls.push_back("findPrivateAddress " + address.address());
    return address;
  }
  void findByMaskedDomain(const std::string& domain,
                          std::map<EmailAddress, EmailAddress>& entries) const override {
    m_calls.push_back("findByMaskedDomain " + domain);
    entries.clear();
  }
  void exportToFile(const std::string& path) override { m_calls.push_back("exportToFile " + path); }
  void importFromFile(const std::string& path) override {
    m_calls.push_back("importFromFile " + path);
  }

  mutable std::vector<std::string> m_calls;

 private:
  std::atomic<int>& m_destroyed;
};

// What happened to a store and its tables.
struct StoreEvents {
  std::atomic<int> aliasTablesMade{0};
  std::atomic<int> maskTablesMade{0};
  std::atomic<int> tablesDestroyed{0};
  std::atomic<int> storesDestroyed{0};
};

// A store that makes fake tables, none for the name "none", and throws for the name "throw".
class FakeStore : public AddressMapDbImpl {
 public:
  explicit FakeStore(StoreEvents& events) : m_events(events) {}
  ~FakeStore() override { ++m_events.storesDestroyed; }

  AddressMaskDbImpl* createMaskDbImpl(const std::string& name) override {
    ++m_events.maskTablesMade;
    refuse(name);
    return name == "none" ? nullptr : new FakeMaskTable(m_events.tablesDestroyed);
  }
  AddressAliasDbImpl* createAliasDbImpl(const std::string& name) override {
    ++m_events.aliasTablesMade;
    refuse(name);
    return name == "none" ? nullptr : new FakeAliasTable(m_events.tablesDestroyed);
  }

 private:
  static void refuse(const std::string& name) {
    if (name == "throw") throw Exception("preload", 4, "Fake", 1);
  }

  StoreEvents& m_events;
};

// A handle of a new body, whose first reference it takes over. The constructors that do so are
// private: programs get every handle from the library.
AddressMapDb handleOver(AddressMapDbImpl* store);
AddressAliasDb handleOver(AddressAliasDbImpl* table);
AddressMaskDb handleOver(AddressMaskDbImpl* table);

}  // namespace Tessel::Testing

#endif
