// Many threads on one store.
#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/Duration.h"
#include "support/MapDatabase.h"
#include "tsl_address_map.h"

namespace Tessel {
namespace {

constexpr int s_threads = 8;

// An address that ends with the object.
class Address {
 public:
  explicit Address(const std::string& text) : m_handle(tsl_emailaddress_parse(text.c_str())) {}
  ~Address() { tsl_emailaddress_destroy(m_handle); }
  Address(const Address&) = delete;
  Address& operator=(const Address&) = delete;
  [[nodiscard]] tsl_emailaddress get() const { return m_handle; }

 private:
  tsl_emailaddress m_handle;
};

// What one thread does: writes aliases and pairs of its own, reads what it wrote, and calls what
// the others call too. Each turn leaves one alias and one pair.
class Worker {
 public:
  Worker(tsl_address_map map, int number)
      : m_map(map), m_domain("t" + std::to_string(number) + ".example") {}

  void run(std::chrono::steady_clock::time_point end) {
    while (m_failure.empty() && std::chrono::steady_clock::now() < end) turn();
  }
  [[nodiscard]] const std::string& failure() const { return m_failure; }
  [[nodiscard]] int turns() const { return m_turns; }

 private:
  void expect(bool condition, const char* what) {
    if (!condition && m_failure.empty()) m_failure = what;
  }

  void turn() {
    const std::string number = std::to_string(m_turns);
    const Address alias("a" + number + "@" + m_domain);
    const Address shown("s" + number + "@" + m_domain);
    const std::string members = "m" + number + "@" + m_domain + ",x@" + m_domain;
    const tsl_address_alias_entry entry{alias.get(), members.c_str()};
    expect(tsl_address_alias_add(m_map, &entry, nullptr) == 0, "alias_add");
    findAlias(alias, members);
    const tsl_address_mask_entry pair{alias.get(), shown.get()};
    expect(tsl_address_mask_add(m_map, &pair, nullptr) == 0, "mask_add");
    findPair(alias, shown);
    if (m_turns % 16 == 0) rare();
    ++m_turns;
  }

  void findAlias(const Address& alias, const std::string& members) {
    tsl_address_alias_entry* found = tsl_address_alias_find(m_map, alias.get(), nullptr);
    expect(found != nullptr && found->members == members, "alias_find");
    tsl_address_alias_entry_destroy(found);
  }

  void findPair(const Address& inner, const Address& shown) {
    tsl_emailaddress found = tsl_address_mask_find_public(m_map, inner.get(), nullptr);
    expect(found != nullptr && emailAddressOf(found) == emailAddressOf(shown.get()), "find_public");
    tsl_emailaddress_destroy(found);
    found = tsl_address_mask_find_private(m_map, shown.get(), nullptr);
    expect(found != nullptr && emailAddressOf(found) == emailAddressOf(inner.get()),
           "find_private");
    tsl_emailaddress_destroy(found);
  }

  // What takes longer, or opens tables and stores.
  void rare() {
    const Address shared("shared@d.example");
    tsl_emailaddress_container reached = tsl_address_alias_expand_alias(shared.get());
    expect(tsl_emailaddress_container_size(reached) == 1, "expand_alias");
    tsl_emailaddress_container_destroy(reached);
    tsl_address_alias_list list =
        tsl_address_alias_find_by_domain(m_map, m_domain.c_str(), nullptr);
    expect(list != nullptr, "find_by_domain");
    tsl_address_alias_list_destroy(list);
    const Address gone("gone@" + m_domain);
    const tsl_address_alias_entry entry{gone.get(), "x@d.example"};
    expect(tsl_address_alias_add(m_map, &entry, "named") == 0, "alias_add to a named table");
    expect(tsl_address_alias_erase(m_map, gone.get(), "named") == 0, "alias_erase");
    expect(tsl_address_alias_erase_by_domain(m_map, m_domain.c_str(), "named") == 0,
           "alias_erase_by_domain");
    tsl_address_map_extensions names = tsl_address_alias_extensions_create();
    expect(tsl_address_map_extensions_get(names) != nullptr, "extensions_get");
    tsl_address_map_extensions_destroy(names);
  }

  tsl_address_map m_map;
  std::string m_domain;
  std::string m_failure;
  int m_turns = 0;
};

class CInterfaceThreads : public Testing::MapDatabase {};

TEST_F(CInterfaceThreads, MixedCallsOnOneStoreLoseNothing) {
  addAlias("shared@d.example", "x@d.example");
  tsl_address_alias_table_create("named");
  tsl_address_map map = tsl_address_alias_create();
  ASSERT_NE(map, nullptr);
  std::vector<Worker> workers;
  for (int i = 0; i < s_threads; ++i) workers.emplace_back(map, i);
  const auto end = std::chrono::steady_clock::now() + Testing::duration();
  std::vector<std::thread> threads;
  for (Worker& worker : workers) threads.emplace_back([&worker, end] { worker.run(end); });
  for (std::thread& thread : threads) thread.join();
  int turns = 0;
  for (const Worker& worker : workers) {
    EXPECT_EQ(worker.failure(), "");
    EXPECT_GT(worker.turns(), 0);
    turns += worker.turns();
  }
  EXPECT_EQ(sql("select count(*) from ts_address_map.alias")[0][0], std::to_string(turns + 1));
  EXPECT_EQ(sql("select count(*) from ts_address_map.mask")[0][0], std::to_string(turns));
  RecordProperty("turns", turns);
  tsl_address_alias_destroy(map);
}

}  // namespace
}  // namespace Tessel
