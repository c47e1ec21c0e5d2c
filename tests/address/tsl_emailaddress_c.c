/* The C helpers used from C11: the header compiles with pedantic warnings, and a C program can
   parse, keep and end addresses. */
#include "address/tsl_emailaddress.h"

#include <string.h>

int tsl_emailaddress_c_test(void);

/* Line of the check that failed, or 0. */
#define REQUIRE(condition) \
  do {                     \
    if (!(condition)) {    \
      return __LINE__;     \
    }                      \
  } while (0)

static int s_single(void) {
  tsl_emailaddress address = tsl_emailaddress_parse(" Anna@Example.com ");
  REQUIRE(address != NULL);
  REQUIRE(strcmp(tsl_emailaddress_text(address), "Anna@Example.com") == 0);
  tsl_emailaddress_destroy(address);
  REQUIRE(tsl_emailaddress_parse("anna") == NULL);
  REQUIRE(tsl_emailaddress_parse("a..b@c") == NULL);
  REQUIRE(tsl_emailaddress_parse("") == NULL);
  REQUIRE(tsl_emailaddress_parse(" \t\r") == NULL);
  return 0;
}

static int s_container(void) {
  tsl_emailaddress_container container = tsl_emailaddress_container_create();
  REQUIRE(container != NULL);
  REQUIRE(tsl_emailaddress_container_size(container) == 0);
  REQUIRE(tsl_emailaddress_container_append(container, tsl_emailaddress_parse("b@c")) == 0);
  REQUIRE(tsl_emailaddress_container_append(container, tsl_emailaddress_parse("a@c")) == 0);
  REQUIRE(tsl_emailaddress_container_append(container, tsl_emailaddress_parse("bad")) == -1);
  REQUIRE(tsl_emailaddress_container_size(container) == 2);
  REQUIRE(strcmp(tsl_emailaddress_text(tsl_emailaddress_container_get(container, 0)), "b@c") == 0);
  REQUIRE(strcmp(tsl_emailaddress_text(tsl_emailaddress_container_get(container, 1)), "a@c") == 0);
  REQUIRE(tsl_emailaddress_container_get(container, 2) == NULL);
  tsl_emailaddress_container_destroy(container);
  return 0;
}

static int s_null(void) {
  REQUIRE(tsl_emailaddress_parse(NULL) == NULL);
  REQUIRE(tsl_emailaddress_text(NULL) == NULL);
  REQUIRE(tsl_emailaddress_container_size(NULL) == 0);
  REQUIRE(tsl_emailaddress_container_get(NULL, 0) == NULL);
  REQUIRE(tsl_emailaddress_container_append(NULL, NULL) == -1);
  tsl_emailaddress_destroy(NULL);
  tsl_emailaddress_container_destroy(NULL);
  return 0;
}

int tsl_emailaddress_c_test(void) {
  int line = s_single();
  if (line == 0) line = s_container();
  if (line == 0) line = s_null();
  return line;
}
