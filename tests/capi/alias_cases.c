/* Alias tables used from C11. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tests/capi/cases.h"

static int s_add_to(tsl_address_map map, const char* name, const char* members, const char* table) {
  tsl_address_alias_entry entry;
  int result;
  entry.name = tsl_emailaddress_parse(name);
  entry.members = members;
  result = tsl_address_alias_add(map, &entry, table);
  tsl_emailaddress_destroy(entry.name);
  return result;
}

static int s_add(tsl_address_map map, const char* name, const char* members) {
  return s_add_to(map, name, members, NULL);
}

/* 1 when the alias has exactly this members text; NULL: when it is not found. */
static int s_has_in(tsl_address_map map, const char* name, const char* members, const char* table) {
  tsl_emailaddress address = tsl_emailaddress_parse(name);
  tsl_address_alias_entry* found = tsl_address_alias_find(map, address, table);
  int same = members == NULL ? found == NULL
                             : found != NULL && strcmp(found->members, members) == 0 &&
                                   strcmp(tsl_emailaddress_text(found->name), name) == 0;
  tsl_address_alias_entry_destroy(found);
  tsl_emailaddress_destroy(address);
  return same;
}

static int s_has(tsl_address_map map, const char* name, const char* members) {
  return s_has_in(map, name, members, NULL);
}

static int s_erase(tsl_address_map map, const char* name) {
  tsl_emailaddress address = tsl_emailaddress_parse(name);
  int result = tsl_address_alias_erase(map, address, NULL);
  tsl_emailaddress_destroy(address);
  return result;
}

static int s_erase_member(tsl_address_map map, const char* user) {
  tsl_emailaddress address = tsl_emailaddress_parse(user);
  int result = tsl_address_alias_erase_member_user(map, address, NULL);
  tsl_emailaddress_destroy(address);
  return result;
}

int tsl_alias_case_add_find_erase(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(map != NULL);
  REQUIRE(s_has(map, "team@d.example", NULL));
  REQUIRE(s_add(map, "team@d.example", "anna@d.example") == 0);
  REQUIRE(s_has(map, "team@d.example", "anna@d.example"));
  REQUIRE(s_erase(map, "team@d.example") == 0);
  REQUIRE(s_has(map, "team@d.example", NULL));
  REQUIRE(s_erase(map, "team@d.example") == 0);
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_add_replaces_members(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(s_add(map, "team@d.example", "anna@d.example,bob@d.example") == 0);
  REQUIRE(s_add(map, "team@d.example", "carl@d.example") == 0);
  REQUIRE(s_has(map, "team@d.example", "carl@d.example"));
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_members_come_sorted(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(s_add(map, "team@d.example",
                "Carl <carl@d.example>, allusers_d.example (all),bob@d.example, bob@d.example") ==
          0);
  REQUIRE(s_has(map, "team@d.example", "allusers_d.example,bob@d.example,carl@d.example"));
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_incomplete_entries_are_refused(void) {
  tsl_address_map map = tsl_address_alias_create();
  tsl_emailaddress name = tsl_emailaddress_parse("team@d.example");
  tsl_address_alias_entry without_name = {NULL, "anna@d.example"};
  tsl_address_alias_entry without_members = {NULL, NULL};
  without_members.name = name;
  REQUIRE(tsl_address_alias_add(map, &without_name, NULL) == -1);
  REQUIRE(tsl_address_alias_add(map, &without_members, NULL) == -1);
  REQUIRE(tsl_address_alias_find_by_domain(map, "*", NULL) == NULL);
  tsl_emailaddress_destroy(name);
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_malformed_members_are_refused(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(s_add(map, "team@d.example", "anna@d.example") == 0);
  REQUIRE(s_add(map, "team@d.example", "a..b@d.example") == -1);
  REQUIRE(s_add(map, "team@d.example", "group: anna@d.example;") == -1);
  REQUIRE(s_has(map, "team@d.example", "anna@d.example"));
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_no_members_is_no_alias(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(s_add(map, "team@d.example", "") == 0);
  REQUIRE(s_has(map, "team@d.example", NULL));
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_list_of_a_domain(void) {
  tsl_address_map map = tsl_address_alias_create();
  tsl_address_alias_list list;
  REQUIRE(s_add(map, "b@d.example", "y@e.example,x@e.example") == 0);
  REQUIRE(s_add(map, "a@d.example", "z@e.example") == 0);
  REQUIRE(s_add(map, "c@other.example", "z@e.example") == 0);
  list = tsl_address_alias_find_by_domain(map, "d.example", NULL);
  REQUIRE(list != NULL);
  REQUIRE(strcmp(tsl_emailaddress_text(list[0].name), "a@d.example") == 0);
  REQUIRE(strcmp(list[0].members, "z@e.example") == 0);
  REQUIRE(strcmp(tsl_emailaddress_text(list[1].name), "b@d.example") == 0);
  REQUIRE(strcmp(list[1].members, "x@e.example,y@e.example") == 0);
  REQUIRE(list[2].name == NULL);
  REQUIRE(list[2].members == NULL);
  /* A result outlives its store. */
  tsl_address_alias_destroy(map);
  tsl_address_alias_list_destroy(list);
  return 0;
}

int tsl_alias_case_list_of_nothing_is_null(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(s_add(map, "a@d.example", "z@e.example") == 0);
  REQUIRE(tsl_address_alias_find_by_domain(map, "e.example", NULL) == NULL);
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_erase_by_domain(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(s_add(map, "a@d.example", "z@e.example") == 0);
  REQUIRE(s_add(map, "b@d.example", "z@e.example") == 0);
  REQUIRE(s_add(map, "c@other.example", "z@e.example") == 0);
  REQUIRE(tsl_address_alias_erase_by_domain(map, "d.example", NULL) == 0);
  REQUIRE(tsl_address_alias_find_by_domain(map, "d.example", NULL) == NULL);
  REQUIRE(s_has(map, "c@other.example", "z@e.example"));
  REQUIRE(tsl_address_alias_erase_by_domain(map, "d.example", NULL) == 0);
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_erase_member_user(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(s_add(map, "only@d.example", "bob@d.example") == 0);
  REQUIRE(s_add(map, "two@d.example", "anna@d.example,bob@d.example") == 0);
  REQUIRE(s_add(map, "similar@d.example", "jimbob@d.example") == 0);
  REQUIRE(s_erase_member(map, "bob@d.example") == 0);
  REQUIRE(s_has(map, "only@d.example", NULL));
  REQUIRE(s_has(map, "two@d.example", "anna@d.example"));
  REQUIRE(s_has(map, "similar@d.example", "jimbob@d.example"));
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_erase_member_user_of_no_alias(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(s_add(map, "two@d.example", "anna@d.example,bob@d.example") == 0);
  REQUIRE(s_erase_member(map, "carl@d.example") == 0);
  REQUIRE(s_has(map, "two@d.example", "anna@d.example,bob@d.example"));
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_expand(void) {
  tsl_address_map map = tsl_address_alias_create();
  tsl_emailaddress all = tsl_emailaddress_parse("all@d.example");
  tsl_emailaddress_container reached;
  REQUIRE(s_add(map, "all@d.example", "team@d.example,carl@d.example") == 0);
  REQUIRE(s_add(map, "team@d.example", "bob@d.example,anna@d.example,all@d.example") == 0);
  tsl_address_alias_destroy(map);
  reached = tsl_address_alias_expand_alias(all);
  REQUIRE(reached != NULL);
  REQUIRE(tsl_emailaddress_container_size(reached) == 3);
  REQUIRE(strcmp(tsl_emailaddress_text(tsl_emailaddress_container_get(reached, 0)),
                 "anna@d.example") == 0);
  REQUIRE(strcmp(tsl_emailaddress_text(tsl_emailaddress_container_get(reached, 1)),
                 "bob@d.example") == 0);
  REQUIRE(strcmp(tsl_emailaddress_text(tsl_emailaddress_container_get(reached, 2)),
                 "carl@d.example") == 0);
  tsl_emailaddress_container_destroy(reached);
  tsl_emailaddress_destroy(all);
  return 0;
}

int tsl_alias_case_expand_no_alias_is_empty(void) {
  tsl_emailaddress plain = tsl_emailaddress_parse("plain@d.example");
  tsl_emailaddress_container reached = tsl_address_alias_expand_alias(plain);
  REQUIRE(reached != NULL);
  REQUIRE(tsl_emailaddress_container_size(reached) == 0);
  tsl_emailaddress_container_destroy(reached);
  tsl_emailaddress_destroy(plain);
  return 0;
}

int tsl_alias_case_null_arguments(void) {
  tsl_address_map map = tsl_address_alias_create();
  tsl_emailaddress address = tsl_emailaddress_parse("a@d.example");
  tsl_address_alias_entry entry;
  entry.name = address;
  entry.members = "b@d.example";
  REQUIRE(tsl_address_alias_add(NULL, &entry, NULL) == -1);
  REQUIRE(tsl_address_alias_add(map, NULL, NULL) == -1);
  REQUIRE(tsl_address_alias_erase(NULL, address, NULL) == -1);
  REQUIRE(tsl_address_alias_erase(map, NULL, NULL) == -1);
  REQUIRE(tsl_address_alias_erase_by_domain(NULL, "d.example", NULL) == -1);
  REQUIRE(tsl_address_alias_erase_by_domain(map, NULL, NULL) == -1);
  REQUIRE(tsl_address_alias_erase_member_user(NULL, address, NULL) == -1);
  REQUIRE(tsl_address_alias_erase_member_user(map, NULL, NULL) == -1);
  REQUIRE(tsl_address_alias_find(NULL, address, NULL) == NULL);
  REQUIRE(tsl_address_alias_find(map, NULL, NULL) == NULL);
  REQUIRE(tsl_address_alias_find_by_domain(NULL, "d.example", NULL) == NULL);
  REQUIRE(tsl_address_alias_find_by_domain(map, NULL, NULL) == NULL);
  REQUIRE(tsl_address_alias_expand_alias(NULL) == NULL);
  REQUIRE(tsl_address_alias_export_to_file(NULL, "/dev/null", NULL) == -1);
  REQUIRE(tsl_address_alias_export_to_file(map, NULL, NULL) == -1);
  REQUIRE(tsl_address_alias_import_from_file(NULL, "/dev/null", NULL) == -1);
  REQUIRE(tsl_address_alias_import_from_file(map, NULL, NULL) == -1);
  tsl_address_alias_table_create(NULL);
  tsl_address_alias_table_erase(NULL);
  tsl_emailaddress_destroy(address);
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_null_ends_nothing(void) {
  tsl_address_alias_destroy(NULL);
  tsl_address_alias_entry_destroy(NULL);
  tsl_address_alias_list_destroy(NULL);
  return 0;
}

int tsl_alias_case_list_with_only_its_end(void) {
  tsl_address_alias_list_destroy(calloc(1, sizeof(tsl_address_alias_entry)));
  return 0;
}

int tsl_alias_case_named_tables(void) {
  tsl_address_map map = tsl_address_alias_create();
  tsl_address_alias_table_create("sales");
  REQUIRE(s_add_to(map, "a@d.example", "x@d.example", "sales") == 0);
  REQUIRE(s_add_to(map, "a@d.example", "y@d.example", NULL) == 0);
  REQUIRE(s_has_in(map, "a@d.example", "x@d.example", "sales"));
  REQUIRE(s_has_in(map, "a@d.example", "y@d.example", ""));
  tsl_address_alias_table_erase("sales");
  /* The open store does not notice. */
  REQUIRE(s_add_to(map, "a@d.example", "x@d.example", "sales") == -1);
  tsl_address_alias_table_create("sales");
  REQUIRE(s_add_to(map, "a@d.example", "x@d.example", "sales") == 0);
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_empty_name_of_the_table_functions(void) {
  tsl_address_map map = tsl_address_alias_create();
  REQUIRE(s_add(map, "a@d.example", "x@d.example") == 0);
  tsl_address_alias_table_create("");
  /* NULL and "" open the default table, not the one just made; and it cannot be dropped so. */
  REQUIRE(s_has_in(map, "a@d.example", "x@d.example", NULL));
  REQUIRE(s_has_in(map, "a@d.example", "x@d.example", ""));
  tsl_address_alias_table_erase("");
  REQUIRE(s_has_in(map, "a@d.example", "x@d.example", NULL));
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_table_create_twice(void) {
  tsl_address_map map = tsl_address_alias_create();
  tsl_address_alias_table_create("sales");
  REQUIRE(s_add_to(map, "a@d.example", "x@d.example", "sales") == 0);
  tsl_address_alias_table_create("sales");
  REQUIRE(s_has_in(map, "a@d.example", "x@d.example", "sales"));
  tsl_address_alias_destroy(map);
  return 0;
}

int tsl_alias_case_files(const char* path) {
  tsl_address_map map = tsl_address_alias_create();
  FILE* file;
  REQUIRE(tsl_address_alias_import_from_file(map, path, NULL) == -1);
  file = fopen(path, "w");
  REQUIRE(file != NULL);
  fputs("a@d.example:y@d.example,x@d.example\nno colon\n\nb@d.example:z@d.example", file);
  fclose(file);
  REQUIRE(tsl_address_alias_import_from_file(map, path, NULL) == 0);
  REQUIRE(s_has(map, "a@d.example", "x@d.example,y@d.example"));
  REQUIRE(s_has(map, "b@d.example", "z@d.example"));
  REQUIRE(tsl_address_alias_export_to_file(map, path, NULL) == 0);
  file = fopen(path, "r");
  REQUIRE(file != NULL);
  REQUIRE(fgetc(file) == EOF);
  fclose(file);
  REQUIRE(remove(path) == 0);
  REQUIRE(tsl_address_alias_export_to_file(map, "/nonexistent/file", NULL) == -1);
  tsl_address_alias_destroy(map);
  return 0;
}
