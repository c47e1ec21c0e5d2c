/* Access to the result of a query, as row parsers use it.
 *
 * `result` is what RowParser::parse() was given; it stays the query's and is valid during that call
 * only, as is everything that these functions return. NULL as result counts as one without rows and
 * columns. One thread at a time, the one that runs the parser. Nothing here fails or throws. */
#ifndef TSL_DATABASE_DB_RESULT_H
#define TSL_DATABASE_DB_RESULT_H

#include <stddef.h>  // NOLINT(modernize-deprecated-headers): the header is for C as well
#include <stdint.h>  // NOLINT(modernize-deprecated-headers): the header is for C as well

#ifdef __cplusplus
extern "C" {
#endif

/* Number of rows. Signed, so that counting up to one less than it is right for no rows too. */
__attribute__((visibility("default"))) int64_t db_result_row_num(void* result);

/* Number of columns. */
__attribute__((visibility("default"))) unsigned int db_result_column_num(void* result);

/* Name of a column, ended by a NUL character; an empty text for a column number out of range. */
__attribute__((visibility("default"))) const char* db_result_column_name(void* result,
                                                                         unsigned int column);

/* Row number `index`, counted from 0, or NULL when there is no such row. Going through the rows in
 * order is cheap; any other row is looked for from the first one on. */
__attribute__((visibility("default"))) void* db_result_fetch_row(void* result, int64_t index);

/* Value of a column of `row`, ended by a NUL character: an empty text for SQL NULL, for a column
 * number out of range and for the row NULL. A value may contain NUL characters of its own:
 * db_result_field_length() gives its length. `connection` is not used. */
__attribute__((visibility("default"))) const char* db_result_get_value(void* connection,
                                                                       void* result, void* row,
                                                                       unsigned int column);

/* Length in bytes of a column in the row that was fetched last; 0 for SQL NULL, for a column number
 * out of range and before the first fetch. */
__attribute__((visibility("default"))) size_t db_result_field_length(void* result,
                                                                     unsigned int column);

#ifdef __cplusplus
}

/* The same as above; `connection` is not used. */
__attribute__((visibility("default"))) int64_t db_result_row_num(void* connection, void* result);
#endif

#endif
