/* Example: alias tables and address masks from C. Leaves the tables as they were but for the domain
   c.example, which it takes for its own. */
#include <stdio.h>
#include <string.h>

#include "c_guard.h"
#include "tsl_address_map.h"

static const char* const s_domain = "c.example";
static const char* const s_table = "c_example";

static int failed(const char* what) {
  fprintf(stderr, "c_interface: %s failed\n", what);
  return -1;
}

static int add_alias(tsl_address_map map, const char* alias, const char* members) {
  tsl_address_alias_entry entry;
  int result;

  entry.name = tsl_emailaddress_parse(alias);
  entry.members = members;
  /* NULL as the table is the default one. What is passed in stays ours. */
  result = tsl_address_alias_add(map, &entry, NULL);
  tsl_emailaddress_destroy(entry.name);
  return result == 0 ? 0 : failed("adding an alias");
}

/* The members as they are stored. */
static int show_alias(tsl_address_map map, const char* alias) {
  tsl_emailaddress address = tsl_emailaddress_parse(alias);
  tsl_address_alias_entry* entry = tsl_address_alias_find(map, address, NULL);

  tsl_emailaddress_destroy(address);
  /* NULL may mean "no such alias" or "could not ask". Here it was just added. */
  if (entry == NULL) return failed("finding an alias");
  printf("stored: %s -> %s\n", tsl_emailaddress_text(entry->name), entry->members);
  tsl_address_alias_entry_destroy(entry);
  return 0;
}

static int list_aliases(tsl_address_map map) {
  tsl_address_alias_list list = tsl_address_alias_find_by_domain(map, s_domain, NULL);
  const tsl_address_alias_entry* entry;

  if (list == NULL) return failed("listing the aliases");
  for (entry = list; entry->name != NULL; ++entry) {
    printf("listed: %s -> %s\n", tsl_emailaddress_text(entry->name), entry->members);
  }
  tsl_address_alias_list_destroy(list);
  return 0;
}

/* Where mail for an alias goes in the end. Opens a store of its own, at every call. */
static int expand_alias(const char* alias) {
  tsl_emailaddress address = tsl_emailaddress_parse(alias);
  tsl_emailaddress_container reached = tsl_address_alias_expand_alias(address);
  size_t index;

  tsl_emailaddress_destroy(address);
  if (reached == NULL) return failed("expanding an alias");
  for (index = 0; index < tsl_emailaddress_container_size(reached); ++index) {
    printf("reached: %s\n", tsl_emailaddress_text(tsl_emailaddress_container_get(reached, index)));
  }
  tsl_emailaddress_container_destroy(reached);
  return 0;
}

static int use_aliases(tsl_address_map map) {
  if (add_alias(map, "staff@c.example", "sales@c.example, cleo@c.example") != 0) return -1;
  if (add_alias(map, "sales@c.example", "ann@c.example, bob@partner.example") != 0) return -1;
  if (show_alias(map, "staff@c.example") != 0) return -1;
  if (list_aliases(map) != 0) return -1;
  if (expand_alias("staff@c.example") != 0) return -1;

  if (tsl_address_alias_erase_by_domain(map, s_domain, NULL) != 0) {
    return failed("erasing the aliases");
  }
  return 0;
}

static int show_pair(const char* how, tsl_emailaddress address) {
  if (address == NULL) return failed("finding a masked address");
  printf("%s: %s\n", how, tsl_emailaddress_text(address));
  tsl_emailaddress_destroy(address);
  return 0;
}

static int list_masks(tsl_address_map map) {
  tsl_address_mask_list list = tsl_address_mask_select(map, s_domain, s_table);
  const tsl_address_mask_entry* entry;

  if (list == NULL) return failed("listing the masks");
  for (entry = list; entry->private_address != NULL; ++entry) {
    printf("masked: %s as ", tsl_emailaddress_text(entry->private_address));
    printf("%s\n", tsl_emailaddress_text(entry->public_address));
  }
  tsl_address_mask_list_destroy(list);
  return 0;
}

/* With a pair whose addresses are destroyed by the caller. */
static int use_mask_pair(tsl_address_map map, const tsl_address_mask_entry* pair) {
  if (tsl_address_mask_add(map, pair, s_table) != 0) return failed("adding a mask");
  if (list_masks(map) != 0) return -1;
  if (show_pair("public", tsl_address_mask_find_public(map, pair->private_address, s_table)) != 0) {
    return -1;
  }
  if (show_pair("private", tsl_address_mask_find_private(map, pair->public_address, s_table)) !=
      0) {
    return -1;
  }
  return tsl_address_mask_erase(map, pair, s_table) == 0 ? 0 : failed("erasing a mask");
}

static int use_masks(tsl_address_map map) {
  tsl_address_mask_entry pair;
  int result;

  pair.private_address = tsl_emailaddress_parse("ann.smith@c.example");
  pair.public_address = tsl_emailaddress_parse("ann@shown.example");
  result = use_mask_pair(map, &pair);
  tsl_emailaddress_destroy(pair.private_address);
  tsl_emailaddress_destroy(pair.public_address);
  return result;
}

/* 1: there is a mask table "mask_" s_table; 0: there is none; -1: could not ask. */
static int has_own_table(void) {
  tsl_address_map_extensions extensions = tsl_address_mask_extensions_create();
  char** names;
  int found = 0;

  if (extensions == NULL) return failed("reading the names of tables");
  /* NULL when there are no names. They belong to `extensions`. */
  names = tsl_address_map_extensions_get(extensions);
  for (; names != NULL && *names != NULL; ++names) {
    if (strcmp(*names, s_table) == 0) found = 1;
  }
  tsl_address_map_extensions_destroy(extensions);
  return found;
}

static int show_own_table(void) {
  int result = has_own_table();

  if (result == -1) return -1;
  printf("table: %s\n", result == 1 ? s_table : "none");
  return 0;
}

/* The masks have a table of their own. Making one throws, above all when it exists: so it is called
   through C++, and only when it is missing. */
static int use_own_table(tsl_address_map map) {
  int result = has_own_table();

  if (result == 1) return failed("making the table c_example, which is there already,");
  if (result != 0) return -1;
  if (guard_table_call(tsl_address_mask_table_create, s_table) != 0) return -1;
  result = show_own_table();
  if (result == 0) result = use_masks(map);
  if (guard_table_call(tsl_address_mask_table_erase, s_table) != 0) return -1;
  return result == 0 ? show_own_table() : -1;
}

int main(void) {
  /* One store serves aliases and masks, and as many calls as wanted: keep it. */
  tsl_address_map map = tsl_address_alias_create();
  int result;

  if (map == NULL) {
    fprintf(stderr, "c_interface: the database cannot be reached\n");
    return 75;
  }
  result = use_aliases(map);
  if (result == 0) result = use_own_table(map);
  tsl_address_alias_destroy(map);
  return result == 0 ? 0 : 75; /* 75: not done, try again later. */
}
