/* C functions that read the numbered tables of a domain's configuration.

   A query reads one committed state of one table, the one that is newest when the query is created;
   it never waits for a writer and sees nothing that is written later. While it exists, the space of
   that state is not used again: free it soon.

   Threads: any thread may call any function. One query is for one thread at a time; it may be
   handed from thread to thread, unless it was created under cmf_shm_read_lock(): then it stays with
   the thread that created it. A query does not survive a fork: in the child every call on it fails,
   and freeing it is all that is left to do.

   Failures: no function lets an exception out. After a call that failed, cmf_query_error() says
   why. */
#ifndef TSL_CMF_CMF_QUERY_H
#define TSL_CMF_CMF_QUERY_H

#include <stddef.h>  // NOLINT(modernize-deprecated-headers): a C header
#include <stdint.h>  // NOLINT(modernize-deprecated-headers): a C header

#include "base/Export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Rows are selected into a slot of the query. A query has this one. */
enum { CMF_QUERY_SLOT = 0 };

typedef struct cmf_query cmf_query; /* NOLINT(modernize-use-using): a C header */

/* Opens table `table_id` of the domain with identifier `domain_id`, in the configuration that
   TSL_CMF_PATH names. NULL when there is no such table (so also when the domain was removed) or the
   configuration cannot be read. The result belongs to the caller: cmf_query_free(). */
TSL_EXPORT cmf_query* cmf_query_create_withdomain(uint32_t domain_id, uint32_t table_id);

/* Ends `query`, and with it every record read through it. NULL is ignored. */
TSL_EXPORT void cmf_query_free(cmf_query* query);

/* Number of rows of the table; -1 on failure. */
TSL_EXPORT int32_t cmf_query_do_table_size(cmf_query* query, int32_t slot);

/* Size of one row in bytes; 0 on failure. */
TSL_EXPORT size_t cmf_query_record_size(cmf_query* query);

/* Selects row `index`, counted from 0, of the rows in ascending order of their lower-cased names.
   Returns 0, or -1 when there is no such row or the call fails; the former selection stays then. */
TSL_EXPORT int32_t cmf_set_query_cache_st(cmf_query* query, int32_t slot, int32_t index);

/* The selected row, read in place: cmf_query_record_size() bytes, aligned to 8, never changing,
   valid until the query is freed. NULL when none is selected or the call fails. Going to the next
   row, the first or the last takes the same short time for any table; going elsewhere takes time in
   proportion to the distance from the nearest of these. */
TSL_EXPORT const void* cmf_query_update(cmf_query* query);

/* Makes all queries and domain look-ups of the calling thread read one state, the newest one now,
   until cmf_shm_read_unlock() was called as often as this. Holds up nobody else. Returns 0, or -1
   when the configuration cannot be read; nothing is locked then. A forked child starts without it.
 */
TSL_EXPORT int32_t cmf_shm_read_lock(void);

/* Ends one cmf_shm_read_lock(). Queries created under it stay valid. Without one it does nothing.
 */
TSL_EXPORT void cmf_shm_read_unlock(void);

/* What went wrong in the last call of this thread that failed; "" when none did. Valid until the
   next call of this thread that fails. */
TSL_EXPORT const char* cmf_query_error(void);

#ifdef __cplusplus
}
#endif

#endif
