/* C helpers for e-mail addresses: single addresses and containers of them, as the C interface of
   the address-map library takes and returns them. Compiles as C11 and as C++20.

   Rules for all of it:
   - A `tsl_emailaddress` is one address on the heap; in C++ it points to a `Tessel::EmailAddress`.
     The caller of a function that creates one destroys it with tsl_emailaddress_destroy(), unless
     a container has taken it over.
   - A `tsl_emailaddress_container` is a growing sequence of addresses, which it owns. It is
     destroyed with tsl_emailaddress_container_destroy(), which destroys its addresses too.
   - NULL as an argument is accepted everywhere and means "none"; each function says what it does
     then, and what NULL means as its result. No function throws.
   - An address never changes: any number of threads may read one at the same time. One container
     may be used by one thread at a time; several threads may read one that none changes. Different
     objects are independent. */
#ifndef TSL_ADDRESS_TSL_EMAILADDRESS_H
#define TSL_ADDRESS_TSL_EMAILADDRESS_H

#include <stddef.h>  // NOLINT(modernize-deprecated-headers): this header is also C.

#include "base/Export.h"

#ifdef __cplusplus
#include "address/EmailAddress.h"

extern "C" {
#endif

/* One address, and a container of addresses; see the rules above. */
typedef struct tsl_emailaddress_body* tsl_emailaddress;
typedef struct tsl_emailaddress_container_body* tsl_emailaddress_container;

/* The address that `text` is, in the syntax of SMTP (no display name, no angle brackets, a domain
   is required); blanks around it are ignored. The caller destroys it with
   tsl_emailaddress_destroy(). NULL: `text` is NULL, blank or malformed, or memory is short. */
TSL_EXPORT tsl_emailaddress tsl_emailaddress_parse(const char* text);

/* Text of `address`, the local part quoted if it must be; it reads back as an equal address. Empty
   for a null address. It belongs to the address, ends with a NUL and is valid as long as the
   address. NULL: `address` is NULL. */
TSL_EXPORT const char* tsl_emailaddress_text(tsl_emailaddress address);

/* Destroys an address that no container has taken over. NULL: does nothing. */
TSL_EXPORT void tsl_emailaddress_destroy(tsl_emailaddress address);

/* A new, empty container. The caller destroys it with tsl_emailaddress_container_destroy().
   NULL: memory is short. */
TSL_EXPORT tsl_emailaddress_container tsl_emailaddress_container_create(void);

/* Appends `address` to `container`, which takes it over: it must not be destroyed or appended
   again, and stays readable until the container is destroyed. Returns 0. Returns -1 when an
   argument is NULL or memory is short: the container is as before, and `address` has been
   destroyed, so that no caller need look. */
TSL_EXPORT int tsl_emailaddress_container_append(tsl_emailaddress_container container,
                                                 tsl_emailaddress address);

/* Number of addresses in `container`; 0 when it is NULL. */
TSL_EXPORT size_t tsl_emailaddress_container_size(tsl_emailaddress_container container);

/* Address number `index`, counted from 0 in the order in which they were appended. It stays the
   container's. NULL: there is none, or `container` is NULL. */
TSL_EXPORT tsl_emailaddress tsl_emailaddress_container_get(tsl_emailaddress_container container,
                                                           size_t index);

/* Destroys a container and its addresses. NULL: does nothing. */
TSL_EXPORT void tsl_emailaddress_container_destroy(tsl_emailaddress_container container);

#ifdef __cplusplus
/* C++ only: a new heap copy of `address`, null or not. The caller destroys it with
   tsl_emailaddress_destroy(). NULL: memory is short. */
TSL_EXPORT tsl_emailaddress tsl_emailaddress_create(const Tessel::EmailAddress& address);

}  // extern "C"

namespace Tessel {

// The address behind a C handle; valid as long as the handle. Requires: `address` is not NULL.
inline const EmailAddress& emailAddressOf(tsl_emailaddress address) noexcept {
  return *reinterpret_cast<const EmailAddress*>(address);
}

}  // namespace Tessel
#endif

#endif
