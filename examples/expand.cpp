// Example: prints the addresses that mail for one address reaches.
#include <iostream>
#include <string_view>

#include "AddressMapDb.h"
#include "base/Exception.h"

using Tessel::AddressMapDb;
using Tessel::EmailAddress;

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "Usage: expand ADDRESS | --initialize\n";
    return 64;
  }
  try {
    if (std::string_view(argv[1]) == "--initialize") {
      // Once, before the first store. Look at the server first: on any failure in a database that
      // exists, this drops the database and creates an empty one.
      AddressMapDb::initialize(AddressMapDb::MySQL, false);
      return 0;
    }
    // Preload: without it no table is ever asked. The store must outlive its tables.
    const AddressMapDb store(AddressMapDb::MySQL, true);
    const Tessel::AddressAliasDb aliases = store.aliasDb("");

    const auto reached = aliases.expandAlias(EmailAddress::rfc5321Parse(argv[1], false));
    for (const EmailAddress& address : reached) std::cout << address << '\n';
    return reached.empty() ? 1 : 0;  // 1: no alias, or an alias that reaches nobody.
  } catch (const Tessel::Exception& exception) {
    std::cerr << exception.what() << '\n';
    return 75;  // Not known: ask again later, and do not take it for "no such address".
  }
}
