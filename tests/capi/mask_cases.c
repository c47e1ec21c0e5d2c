/* Address-mask tables used from C11. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tests/capi/cases.h"

typedef int (*s_pair_call)(tsl_address_map map, const tsl_address_mask_entry* entry,
                           const char* table);

static int s_on_pair(s_pair_call call, tsl_address_map map, const char* private_text,
                     const char* public_text, const char* table) {
  tsl_address_mask_entry entry;
  int result;
  entry.private_address = tsl_emailaddress_parse(private_text);
  entry.public_address = tsl_emailaddress_parse(public_text);
  result = call(map, &entry, table);
  tsl_emailaddress_destroy(entry.private_address);
  tsl_emailaddress_destroy(entry.public_address);
  return result;
}

static int s_add(tsl_address_map map, const char* private_text, const char* public_text) {
  return s_on_pair(tsl_address_mask_add, map, private_text, public_text, NULL);
}

static int s_erase(tsl_address_map map, const char* private_text, const char* public_text) {
  return s_on_pair(tsl_address_mask_erase, map, private_text, public_text, NULL);
}

typedef tsl_emailaddress (*s_find_call)(tsl_address_map map, tsl_emailaddress address,
                                        const char* table);

/* 1 when `call` finds `expected` for `text`; NULL: when it finds nothing. */
static int s_finds_in(s_find_call call, tsl_address_map map, const char* text, const char* expected,
                      const char* table) {
  tsl_emailaddress address = tsl_emailaddress_parse(text);
  tsl_emailaddress found = call(map, address, table);
  int same = expected == NULL
                 ? found == NULL
                 : found != NULL && strcmp(tsl_emailaddress_text(found), expected) == 0;
  tsl_emailaddress_destroy(found);
  tsl_emailaddress_destroy(address);
  return same;
}

static int s_has_public(tsl_address_map map, const char* private_text, const char* expected) {
  return s_finds_in(tsl_address_mask_find_public, map, private_text, expected, NULL);
}

static int s_has_private(tsl_address_map map, const char* public_text, const char* expected) {
  return s_finds_in(tsl_address_mask_find_private, map, public_text, expected, NULL);
}

int tsl_mask_case_add_find_erase(void) {
  tsl_address_map map = tsl_address_mask_create();
  REQUIRE(map != NULL);
  REQUIRE(s_has_public(map, "p@d.example", NULL));
  REQUIRE(s_has_private(map, "q@e.example", NULL));
  REQUIRE(s_add(map, "p@d.example", "q@e.example") == 0);
  REQUIRE(s_has_public(map, "p@d.example", "q@e.example"));
  REQUIRE(s_has_private(map, "q@e.example", "p@d.example"));
  REQUIRE(s_erase(map, "p@d.example", "q@e.example") == 0);
  REQUIRE(s_has_public(map, "p@d.example", NULL));
  tsl_address_mask_destroy(map);
  return 0;
}

int tsl_mask_case_add_replaces_public_address(void) {
  tsl_address_map map = tsl_address_mask_create();
  REQUIRE(s_add(map, "p@d.example", "q@e.example") == 0);
  REQUIRE(s_add(map, "p@d.example", "r@e.example") == 0);
  REQUIRE(s_has_public(map, "p@d.example", "r@e.example"));
  REQUIRE(s_has_private(map, "q@e.example", NULL));
  tsl_address_mask_destroy(map);
  return 0;
}

int tsl_mask_case_erase_needs_both(void) {
  tsl_address_map map = tsl_address_mask_create();
  REQUIRE(s_add(map, "p@d.example", "q@e.example") == 0);
  REQUIRE(s_erase(map, "p@d.example", "other@e.example") == 0);
  REQUIRE(s_has_public(map, "p@d.example", "q@e.example"));
  tsl_address_mask_destroy(map);
  return 0;
}

int tsl_mask_case_erase_by_domain(void) {
  tsl_address_map map = tsl_address_mask_create();
  REQUIRE(s_add(map, "p@d.example", "q@e.example") == 0);
  REQUIRE(s_add(map, "p@other.example", "r@e.example") == 0);
  REQUIRE(tsl_address_mask_erase_by_domain(map, "d.example", NULL) == 0);
  REQUIRE(s_has_public(map, "p@d.example", NULL));
  REQUIRE(s_has_public(map, "p@other.example", "r@e.example"));
  tsl_address_mask_destroy(map);
  return 0;
}

int tsl_mask_case_select(void) {
  tsl_address_map map = tsl_address_mask_create();
  tsl_address_mask_list list;
  REQUIRE(s_add(map, "b@d.example", "q2@e.example") == 0);
  REQUIRE(s_add(map, "a@d.example", "q1@e.example") == 0);
  REQUIRE(s_add(map, "c@other.example", "q3@e.example") == 0);
  list = tsl_address_mask_select(map, "d.example", NULL);
  REQUIRE(list != NULL);
  REQUIRE(strcmp(tsl_emailaddress_text(list[0].private_address), "a@d.example") == 0);
  REQUIRE(strcmp(tsl_emailaddress_text(list[0].public_address), "q1@e.example") == 0);
  REQUIRE(strcmp(tsl_emailaddress_text(list[1].private_address), "b@d.example") == 0);
  REQUIRE(strcmp(tsl_emailaddress_text(list[1].public_address), "q2@e.example") == 0);
  REQUIRE(list[2].private_address == NULL);
  REQUIRE(list[2].public_address == NULL);
  tsl_address_mask_list_destroy(list);
  list = tsl_address_mask_select(map, "*", NULL);
  REQUIRE(list != NULL);
  REQUIRE(strcmp(tsl_emailaddress_text(list[2].private_address), "c@other.example") == 0);
  REQUIRE(list[3].private_address == NULL);
  /* A result outlives its store. */
  tsl_address_mask_destroy(map);
  tsl_address_mask_list_destroy(list);
  return 0;
}

int tsl_mask_case_select_nothing_is_null(void) {
  tsl_address_map map = tsl_address_mask_create();
  REQUIRE(tsl_address_mask_select(map, "*", NULL) == NULL);
  REQUIRE(s_add(map, "a@d.example", "q@e.example") == 0);
  REQUIRE(tsl_address_mask_select(map, "e.example", NULL) == NULL);
  tsl_address_mask_destroy(map);
  return 0;
}

int tsl_mask_case_wildcards_are_not_applied(void) {
  tsl_address_map map = tsl_address_mask_create();
  REQUIRE(s_add(map, "*@d.example", "*@e.example") == 0);
  REQUIRE(s_has_private(map, "anna@e.example", NULL));
  REQUIRE(s_has_public(map, "anna@d.example", NULL));
  /* The row itself is found like any other. */
  REQUIRE(s_has_public(map, "*@d.example", "*@e.example"));
  tsl_address_mask_destroy(map);
  return 0;
}

int tsl_mask_case_null_arguments(void) {
  tsl_address_map map = tsl_address_mask_create();
  tsl_emailaddress address = tsl_emailaddress_parse("a@d.example");
  tsl_address_mask_entry entry;
  tsl_address_mask_entry half = {NULL, NULL};
  entry.private_address = address;
  entry.public_address = address;
  REQUIRE(tsl_address_mask_add(NULL, &entry, NULL) == -1);
  REQUIRE(tsl_address_mask_add(map, NULL, NULL) == -1);
  REQUIRE(tsl_address_mask_add(map, &half, NULL) == -1);
  REQUIRE(tsl_address_mask_erase(NULL, &entry, NULL) == -1);
  REQUIRE(tsl_address_mask_erase(map, NULL, NULL) == -1);
  REQUIRE(tsl_address_mask_erase(map, &half, NULL) == -1);
  half.private_address = address;
  REQUIRE(tsl_address_mask_add(map, &half, NULL) == -1);
  REQUIRE(tsl_address_mask_erase(map, &half, NULL) == -1);
  REQUIRE(tsl_address_mask_erase_by_domain(NULL, "d.example", NULL) == -1);
  REQUIRE(tsl_address_mask_erase_by_domain(map, NULL, NULL) == -1);
  REQUIRE(tsl_address_mask_select(NULL, "*", NULL) == NULL);
  REQUIRE(tsl_address_mask_select(map, NULL, NULL) == NULL);
  REQUIRE(tsl_address_mask_find_private(NULL, address, NULL) == NULL);
  REQUIRE(tsl_address_mask_find_private(map, NULL, NULL) == NULL);
  REQUIRE(tsl_address_mask_find_public(NULL, address, NULL) == NULL);
  REQUIRE(tsl_address_mask_find_public(map, NULL, NULL) == NULL);
  REQUIRE(tsl_address_mask_export_to_file(NULL, "/dev/null", NULL) == -1);
  REQUIRE(tsl_address_mask_export_to_file(map, NULL, NULL) == -1);
  REQUIRE(tsl_address_mask_import_from_file(NULL, "/dev/null", NULL) == -1);
  REQUIRE(tsl_address_mask_import_from_file(map, NULL, NULL) == -1);
  tsl_address_mask_table_create(NULL);
  tsl_address_mask_table_erase(NULL);
  tsl_emailaddress_destroy(address);
  tsl_address_mask_destroy(map);
  return 0;
}

int tsl_mask_case_null_ends_nothing(void) {
  tsl_address_mask_destroy(NULL);
  tsl_address_mask_list_destroy(NULL);
  return 0;
}

int tsl_mask_case_list_with_only_its_end(void) {
  tsl_address_mask_list_destroy(calloc(1, sizeof(tsl_address_mask_entry)));
  return 0;
}

int tsl_mask_case_named_tables(void) {
  tsl_address_map map = tsl_address_mask_create();
  tsl_address_mask_table_create("sales");
  REQUIRE(s_on_pair(tsl_address_mask_add, map, "p@d.example", "q@e.example", "sales") == 0);
  REQUIRE(s_finds_in(tsl_address_mask_find_public, map, "p@d.example", "q@e.example", "sales"));
  REQUIRE(s_has_public(map, "p@d.example", NULL));
  tsl_address_mask_table_erase("sales");
  REQUIRE(s_on_pair(tsl_address_mask_add, map, "p@d.example", "q@e.example", "sales") == -1);
  tsl_address_mask_destroy(map);
  return 0;
}

int tsl_mask_case_empty_name_of_the_table_functions(void) {
  tsl_address_map map = tsl_address_mask_create();
  REQUIRE(s_add(map, "p@d.example", "q@e.example") == 0);
  tsl_address_mask_table_create("");
  REQUIRE(s_has_public(map, "p@d.example", "q@e.example"));
  REQUIRE(s_finds_in(tsl_address_mask_find_public, map, "p@d.example", "q@e.example", ""));
  tsl_address_mask_table_erase("");
  REQUIRE(s_has_public(map, "p@d.example", "q@e.example"));
  tsl_address_mask_destroy(map);
  return 0;
}

int tsl_mask_case_one_handle_serves_both(void) {
  tsl_address_map by_mask = tsl_address_mask_create();
  tsl_address_map by_alias = tsl_address_alias_create();
  tsl_address_alias_entry entry;
  tsl_address_alias_entry* found;
  entry.name = tsl_emailaddress_parse("a@d.example");
  entry.members = "b@d.example";
  REQUIRE(tsl_address_alias_add(by_mask, &entry, NULL) == 0);
  REQUIRE(s_add(by_alias, "p@d.example", "q@e.example") == 0);
  REQUIRE(s_has_public(by_mask, "p@d.example", "q@e.example"));
  found = tsl_address_alias_find(by_alias, entry.name, NULL);
  REQUIRE(found != NULL);
  tsl_address_alias_entry_destroy(found);
  tsl_emailaddress_destroy(entry.name);
  tsl_address_alias_destroy(by_mask);
  tsl_address_mask_destroy(by_alias);
  return 0;
}

int tsl_mask_case_files(const char* path) {
  tsl_address_map map = tsl_address_mask_create();
  FILE* file;
  REQUIRE(tsl_address_mask_import_from_file(map, path, NULL) == -1);
  file = fopen(path, "w");
  REQUIRE(file != NULL);
  fputs("p1@d.example:q1@e.example\nno colon\n\np2@d.example:q2@e.example", file);
  fclose(file);
  REQUIRE(tsl_address_mask_import_from_file(map, path, NULL) == 0);
  REQUIRE(s_has_public(map, "p1@d.example", "q1@e.example"));
  REQUIRE(s_has_public(map, "p2@d.example", "q2@e.example"));
  REQUIRE(tsl_address_mask_export_to_file(map, path, NULL) == 0);
  file = fopen(path, "r");
  REQUIRE(file != NULL);
  REQUIRE(fgetc(file) == EOF);
  fclose(file);
  REQUIRE(remove(path) == 0);
  REQUIRE(tsl_address_mask_export_to_file(map, "/nonexistent/file", NULL) == -1);
  tsl_address_mask_destroy(map);
  return 0;
}
