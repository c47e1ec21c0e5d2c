/* The cases that a C program can express. Each works on an empty database and returns 0, or the
   line of the check that failed. `path` names a file that is not there yet. */
#ifndef TSL_TESTS_CAPI_CASES_H
#define TSL_TESTS_CAPI_CASES_H

#include "tsl_address_map.h"

/* Returns the line from the function that contains it when `condition` does not hold. */
#define REQUIRE(condition) \
  do {                     \
    if (!(condition)) {    \
      return __LINE__;     \
    }                      \
  } while (0)

#ifdef __cplusplus
extern "C" {
#endif

/* alias_cases.c */
int tsl_alias_case_add_find_erase(void);
int tsl_alias_case_add_replaces_members(void);
int tsl_alias_case_members_come_sorted(void);
int tsl_alias_case_incomplete_entries_are_refused(void);
int tsl_alias_case_malformed_members_are_refused(void);
int tsl_alias_case_no_members_is_no_alias(void);
int tsl_alias_case_list_of_a_domain(void);
int tsl_alias_case_list_of_nothing_is_null(void);
int tsl_alias_case_erase_by_domain(void);
int tsl_alias_case_erase_member_user(void);
int tsl_alias_case_erase_member_user_of_no_alias(void);
int tsl_alias_case_expand(void);
int tsl_alias_case_expand_no_alias_is_empty(void);
int tsl_alias_case_null_arguments(void);
int tsl_alias_case_null_ends_nothing(void);
int tsl_alias_case_list_with_only_its_end(void);
int tsl_alias_case_named_tables(void);
int tsl_alias_case_empty_name_of_the_table_functions(void);
int tsl_alias_case_table_create_twice(void);
int tsl_alias_case_files(const char* path);

/* mask_cases.c */
int tsl_mask_case_add_find_erase(void);
int tsl_mask_case_add_replaces_public_address(void);
int tsl_mask_case_erase_needs_both(void);
int tsl_mask_case_erase_by_domain(void);
int tsl_mask_case_select(void);
int tsl_mask_case_select_nothing_is_null(void);
int tsl_mask_case_wildcards_are_not_applied(void);
int tsl_mask_case_null_arguments(void);
int tsl_mask_case_null_ends_nothing(void);
int tsl_mask_case_list_with_only_its_end(void);
int tsl_mask_case_named_tables(void);
int tsl_mask_case_empty_name_of_the_table_functions(void);
int tsl_mask_case_one_handle_serves_both(void);
int tsl_mask_case_files(const char* path);

/* extension_cases.c */
int tsl_extension_case_no_tables(void);
int tsl_extension_case_order_and_empty_extension(void);
int tsl_extension_case_snapshot(void);
int tsl_extension_case_null(void);
int tsl_extension_case_empty_extension_opens_the_default_table(void);

#ifdef __cplusplus
}
#endif

#endif
