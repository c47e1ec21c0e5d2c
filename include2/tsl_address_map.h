/* The C interface of the address-map library: alias tables, address-mask tables and the names of
   both. Compiles as C11 and as C++20. This header is the manual; docs/c-interface.md shows the
   calls at work.

   Objects and who destroys them
   - tsl_address_map: an open store with one database connection. Created by
     tsl_address_alias_create() or tsl_address_mask_create(), which do the same; destroyed by
     tsl_address_alias_destroy() or tsl_address_mask_destroy(), which do the same. One store serves
     the functions of both kinds.
   - tsl_emailaddress, tsl_emailaddress_container: see address/tsl_emailaddress.h, which has the
     functions that create, read and destroy them.
   - tsl_address_alias_entry: one alias. An entry that a function returned is destroyed by
     tsl_address_alias_entry_destroy(), never by free().
   - tsl_address_alias_list, tsl_address_mask_list: arrays of records, destroyed by
     tsl_address_alias_list_destroy() and tsl_address_mask_list_destroy(). A single record of a
     list is never destroyed alone.
   - tsl_address_map_extensions: table names, destroyed by tsl_address_map_extensions_destroy().
   The caller owns what a function returns until that call. The caller keeps what it passes in: the
   function reads it during the call and does not keep it. The caller's own records and their
   strings may be anywhere in memory.

   Table names
   - The last argument `table` of a function with a store is the name after "alias_" or "mask_";
     NULL and "" mean the default tables "alias" and "mask".
   - The functions named ..._table_create and ..._table_erase always write the "_": for them "" is
     the table "alias_" or "mask_", which no function with a store opens.
   - Names, like domains, go into SQL unescaped. Only letters, digits and "_" are safe in a table
     name. "'", "\", "%" and "_" are not safe in a domain. The writing functions say what else is
     not safe.

   Results
   - int: 0 done, -1 refused or failed.
   - A pointer: NULL for "nothing there", for "could not ask" and for a refused argument alike. A
     caller that must distinguish them (a mail server must: NULL is not "no such address") uses the
     C++ classes or the lookup service.
   - NULL as a store, an address, an entry, a domain or a path is refused: the result is -1 or NULL
     and nothing is touched. NULL as an object to destroy is ignored.

   Exceptions
   - Failures of the database and malformed texts (the library's own exception) become -1, NULL or
     the partial result that a function names.
   - The four functions ..._table_create and ..._table_erase let that exception out. Everything
     else that C++ can throw, above all std::bad_alloc when memory is short, leaves any function
     that asks the database, except the two ..._extensions_create. Then nothing stays locked,
     nothing is leaked, and the store can still be used. The functions that destroy an object throw
     nothing.
   - A C program that calls one of the four, or must survive a lack of memory, therefore calls
     through a C++ function that catches. An exception that reaches main() or the start of a thread
     terminates the process. One that passes through C frames needs them compiled with
     -fexceptions, and skips their clean-up.

   Threads: any number of threads may use one store at the same time, each with arguments of its
   own; their statements take turns on its connection. No thread may use a store that another
   thread destroys. Functions without a store may be called from any thread. Results are
   independent of their store and of each other; several threads may read a result that none
   destroys.

   Stores created here never preload a table, so each call reports what the table holds at that
   moment. */
#ifndef TSL_ADDRESS_MAP_H
#define TSL_ADDRESS_MAP_H

#include "address/tsl_emailaddress.h"
#include "base/Export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An open store; in C++ it points to a `Tessel::AddressMapDb`. */
typedef struct tsl_address_map_body* tsl_address_map;

/* One alias. */
typedef struct tsl_address_alias_entry {
  /* The alias address. */
  tsl_emailaddress name;
  /* Its members, NUL-terminated. Written by the library: in ascending order, joined by "," without
     blanks. Read by it: a list of addresses as in a header field (RFC 5322, section 3.4), each of
     which may lack a domain. */
  const char* members;
} tsl_address_alias_entry;

/* Aliases in ascending order of their addresses: an array of records; a record whose `name` is NULL
   ends it. */
typedef tsl_address_alias_entry* tsl_address_alias_list;

/* One address-mask pair. "*" as a local part makes a row for a whole domain. */
typedef struct tsl_address_mask_entry {
  /* The address inside the organisation. */
  tsl_emailaddress private_address;
  /* The address shown outside in its place. */
  tsl_emailaddress public_address;
} tsl_address_mask_entry;

/* Pairs in ascending order of their private addresses: an array of records; a record whose
   `private_address` is NULL ends it. */
typedef tsl_address_mask_entry* tsl_address_mask_list;

/* Names of tables, as of one moment. */
typedef struct tsl_address_map_extensions_body* tsl_address_map_extensions;

/* ---- Alias tables ---- */

/* Opens a store: connects to the database ts_address_map of the default server, and reads nothing.
   NULL: the server or the database could not be reached. */
TSL_EXPORT tsl_address_map tsl_address_alias_create(void);

/* Destroys a store that either create function created. The results that it gave stay valid. */
TSL_EXPORT void tsl_address_alias_destroy(tsl_address_map map);

/* Destroys an entry that tsl_address_alias_find() returned, with its address and its text. */
TSL_EXPORT void tsl_address_alias_entry_destroy(tsl_address_alias_entry* entry);

/* Destroys a list that tsl_address_alias_find_by_domain() returned, with all that it holds. */
TSL_EXPORT void tsl_address_alias_list_destroy(tsl_address_alias_list list);

/* Creates the alias table "alias_" `name` over a connection of its own; an existing table stays
   unchanged. NULL: does nothing. Lets the library's exception out when the database refuses. */
TSL_EXPORT void tsl_address_alias_table_create(const char* name);

/* Drops the alias table "alias_" `name`, over a connection of its own. Open stores do not notice
   until they next use the table, which fails. The default table cannot be dropped. NULL: does
   nothing. Lets the library's exception out, also when there is no such table. */
TSL_EXPORT void tsl_address_alias_table_erase(const char* name);

/* Adds the alias `entry`, or replaces the members of an existing one. A members text without an
   address creates an alias without members, which no lookup treats as an alias. The text is
   parsed before the database is touched, and written into SQL unescaped: refuse members with a
   quote or a backslash first. -1: also when `name` or `members` is NULL, or does not parse. */
TSL_EXPORT int tsl_address_alias_add(tsl_address_map map, const tsl_address_alias_entry* entry,
                                     const char* table);

/* Removes the alias `alias`; 0 also when there was none. */
TSL_EXPORT int tsl_address_alias_erase(tsl_address_map map, tsl_emailaddress alias,
                                       const char* table);

/* Removes all aliases of `domain`; 0 also when there were none. "%" and "_" in it match anything.
 */
TSL_EXPORT int tsl_address_alias_erase_by_domain(tsl_address_map map, const char* domain,
                                                 const char* table);

/* Removes the member `user` from every alias that has it; an alias that has no other member is
   removed. 0 also when no alias has it. -1: the aliases changed before the failure stay changed.
   Two callers that change one alias at the same time may undo each other's change. */
TSL_EXPORT int tsl_address_alias_erase_member_user(tsl_address_map map, tsl_emailaddress user,
                                                   const char* table);

/* The alias `alias` with its members as they are stored, not expanded; destroyed with
   tsl_address_alias_entry_destroy(). NULL: also when it has no members. A failure while the entry
   is filled returns it with NULL in the fields that are not. */
TSL_EXPORT tsl_address_alias_entry* tsl_address_alias_find(tsl_address_map map,
                                                           tsl_emailaddress alias,
                                                           const char* table);

/* The aliases of `domain`, or all for "*"; destroyed with tsl_address_alias_list_destroy(). A row
   of the table without an address or without members becomes a record with an empty address and an
   empty text. NULL: also when there are none. A failure while the list is filled returns
   what was filled so far, as a list with its end. */
TSL_EXPORT tsl_address_alias_list tsl_address_alias_find_by_domain(tsl_address_map map,
                                                                   const char* domain,
                                                                   const char* table);

/* The final addresses that mail for `address` reaches by the default table, in ascending order, as
   the C++ call AddressAliasDb::expandAlias() gives them; destroyed with
   tsl_emailaddress_container_destroy(). Empty, not NULL, when it is no alias or expands to nothing.
   Opens a store of its own each time and reads both default tables whole: the time grows with
   them. NULL: `address` is NULL, or the tables could not be read. A failure while the container
   is filled returns what it holds so far. */
TSL_EXPORT tsl_emailaddress_container tsl_address_alias_expand_alias(tsl_emailaddress address);

/* Creates or EMPTIES the file `path`, writes nothing to it, and recounts the rows of the table.
   For a real listing use find_by_domain with "*", or the tool. */
TSL_EXPORT int tsl_address_alias_export_to_file(tsl_address_map map, const char* path,
                                                const char* table);

/* Adds the aliases of the file `path`, one "alias:member,member" a line. -1: the aliases of the
   lines before the failure stay. A line longer than 16383 characters is cut, and the import stops
   there and returns 0. */
TSL_EXPORT int tsl_address_alias_import_from_file(tsl_address_map map, const char* path,
                                                  const char* table);

/* ---- Address-mask tables ---- */

/* As tsl_address_alias_create(). */
TSL_EXPORT tsl_address_map tsl_address_mask_create(void);

/* As tsl_address_alias_destroy(). */
TSL_EXPORT void tsl_address_mask_destroy(tsl_address_map map);

/* Destroys a list that tsl_address_mask_select() returned, with all that it holds. */
TSL_EXPORT void tsl_address_mask_list_destroy(tsl_address_mask_list list);

/* Creates the mask table "mask_" `name` over a connection of its own. NULL: does nothing. Lets the
   library's exception out when the database refuses, and, unlike its alias counterpart, when the
   table exists. */
TSL_EXPORT void tsl_address_mask_table_create(const char* name);

/* Drops the mask table "mask_" `name`; as tsl_address_alias_table_erase(). */
TSL_EXPORT void tsl_address_mask_table_erase(const char* name);

/* Adds the pair `entry`. Both columns are unique: when the private or the public address is taken,
   that row gets this public address, and no row is added. The texts go into SQL unescaped: refuse
   addresses with a quote or a backslash first. -1: also when a field is NULL. */
TSL_EXPORT int tsl_address_mask_add(tsl_address_map map, const tsl_address_mask_entry* entry,
                                    const char* table);

/* Removes the row that has both addresses of `entry`; 0 also when there was none. Unescaped as
   above. -1: also when a field is NULL. */
TSL_EXPORT int tsl_address_mask_erase(tsl_address_map map, const tsl_address_mask_entry* entry,
                                      const char* table);

/* Removes the pairs whose private address is in `domain`; 0 also when there were none. "%" and "_"
   in it match anything. */
TSL_EXPORT int tsl_address_mask_erase_by_domain(tsl_address_map map, const char* domain,
                                                const char* table);

/* The pairs whose private address is in `domain`, or all for "*"; destroyed with
   tsl_address_mask_list_destroy(). NULL: also when there are none. A failure while the list is
   filled returns NULL too, and the addresses copied until then are lost. */
TSL_EXPORT tsl_address_mask_list tsl_address_mask_select(tsl_address_map map, const char* domain,
                                                         const char* table);

/* The private address of the row whose public address is `public_address`; destroyed with
   tsl_emailaddress_destroy(). Rows for whole domains are not applied. NULL: also when there is no
   such row. */
TSL_EXPORT tsl_emailaddress tsl_address_mask_find_private(tsl_address_map map,
                                                          tsl_emailaddress public_address,
                                                          const char* table);

/* The public address of the row whose private address is `private_address`; otherwise as
   tsl_address_mask_find_private(). */
TSL_EXPORT tsl_emailaddress tsl_address_mask_find_public(tsl_address_map map,
                                                         tsl_emailaddress private_address,
                                                         const char* table);

/* Creates or EMPTIES the file `path`, writes nothing to it, and recounts the rows of the table.
   For a real listing use tsl_address_mask_select() with "*", or the tool. */
TSL_EXPORT int tsl_address_mask_export_to_file(tsl_address_map map, const char* path,
                                               const char* table);

/* Adds the pairs of the file `path`, one "private:public" a line; otherwise as
   tsl_address_alias_import_from_file(). */
TSL_EXPORT int tsl_address_mask_import_from_file(tsl_address_map map, const char* path,
                                                 const char* table);

/* ---- Names of tables ---- */

/* The names of the alias tables after "alias" and one more character, as of now, over a
   connection of its own; destroyed with tsl_address_map_extensions_destroy(). The default table is
   left out. That character may be any: a table "aliases" is listed as "s", and a table
   "alias_" as "", which means the default table to the functions with a store. NULL: the names
   could not be read. Lets no exception out. */
TSL_EXPORT tsl_address_map_extensions tsl_address_alias_extensions_create(void);

/* As tsl_address_alias_extensions_create(), for the mask tables. */
TSL_EXPORT tsl_address_map_extensions tsl_address_mask_extensions_create(void);

/* The names in ascending byte order, with a NULL after the last. Array and strings belong to
   `extensions` and are valid as long as it; they must be neither changed nor freed. NULL: there are
   no such tables, or `extensions` is NULL. */
TSL_EXPORT char** tsl_address_map_extensions_get(tsl_address_map_extensions extensions);

/* Destroys what an extensions_create function returned. */
TSL_EXPORT void tsl_address_map_extensions_destroy(tsl_address_map_extensions extensions);

#ifdef __cplusplus
}
#endif

#endif
