/* Where the exceptions of the library end for a C program. */
#ifndef C_GUARD_H
#define C_GUARD_H

#ifdef __cplusplus
extern "C" {
#endif

/* Calls `function`, one of tsl_address_..._table_create and tsl_address_..._table_erase, with
   `table`. 0: done. -1: it threw; what it said was written to standard error. */
int guard_table_call(void (*function)(const char*), const char* table);

#ifdef __cplusplus
}
#endif

#endif
