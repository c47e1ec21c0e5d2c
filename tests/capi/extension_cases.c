/* Names of tables read from C11. */
#include <string.h>

#include "tests/capi/cases.h"

int tsl_extension_case_no_tables(void) {
  tsl_address_map_extensions extensions = tsl_address_alias_extensions_create();
  REQUIRE(extensions != NULL);
  REQUIRE(tsl_address_map_extensions_get(extensions) == NULL);
  tsl_address_map_extensions_destroy(extensions);
  extensions = tsl_address_mask_extensions_create();
  REQUIRE(extensions != NULL);
  REQUIRE(tsl_address_map_extensions_get(extensions) == NULL);
  tsl_address_map_extensions_destroy(extensions);
  return 0;
}

int tsl_extension_case_order_and_empty_extension(void) {
  tsl_address_map_extensions extensions;
  char** names;
  tsl_address_alias_table_create("b");
  tsl_address_alias_table_create("a");
  tsl_address_alias_table_create("");
  tsl_address_mask_table_create("m");
  extensions = tsl_address_alias_extensions_create();
  names = tsl_address_map_extensions_get(extensions);
  REQUIRE(names != NULL);
  REQUIRE(strcmp(names[0], "") == 0);
  REQUIRE(strcmp(names[1], "a") == 0);
  REQUIRE(strcmp(names[2], "b") == 0);
  REQUIRE(names[3] == NULL);
  REQUIRE(tsl_address_map_extensions_get(extensions) == names);
  tsl_address_map_extensions_destroy(extensions);
  extensions = tsl_address_mask_extensions_create();
  names = tsl_address_map_extensions_get(extensions);
  REQUIRE(names != NULL);
  REQUIRE(strcmp(names[0], "m") == 0);
  REQUIRE(names[1] == NULL);
  tsl_address_map_extensions_destroy(extensions);
  return 0;
}

int tsl_extension_case_snapshot(void) {
  tsl_address_map_extensions before;
  tsl_address_map_extensions after;
  tsl_address_alias_table_create("a");
  before = tsl_address_alias_extensions_create();
  tsl_address_alias_table_create("b");
  tsl_address_alias_table_erase("a");
  REQUIRE(strcmp(tsl_address_map_extensions_get(before)[0], "a") == 0);
  REQUIRE(tsl_address_map_extensions_get(before)[1] == NULL);
  after = tsl_address_alias_extensions_create();
  REQUIRE(strcmp(tsl_address_map_extensions_get(after)[0], "b") == 0);
  REQUIRE(tsl_address_map_extensions_get(after)[1] == NULL);
  tsl_address_map_extensions_destroy(before);
  tsl_address_map_extensions_destroy(after);
  return 0;
}

int tsl_extension_case_null(void) {
  REQUIRE(tsl_address_map_extensions_get(NULL) == NULL);
  tsl_address_map_extensions_destroy(NULL);
  return 0;
}

int tsl_extension_case_empty_extension_opens_the_default_table(void) {
  tsl_address_map map = tsl_address_alias_create();
  tsl_address_map_extensions extensions;
  tsl_address_alias_entry entry;
  tsl_address_alias_entry* found;
  entry.name = tsl_emailaddress_parse("a@d.example");
  entry.members = "b@d.example";
  tsl_address_alias_table_create("");
  REQUIRE(tsl_address_alias_add(map, &entry, NULL) == 0);
  extensions = tsl_address_alias_extensions_create();
  found = tsl_address_alias_find(map, entry.name, tsl_address_map_extensions_get(extensions)[0]);
  REQUIRE(found != NULL);
  tsl_address_alias_entry_destroy(found);
  tsl_address_map_extensions_destroy(extensions);
  tsl_emailaddress_destroy(entry.name);
  tsl_address_alias_destroy(map);
  return 0;
}
