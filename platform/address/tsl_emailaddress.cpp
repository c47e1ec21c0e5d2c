// The C helpers for addresses. No exception may leave them.
#include "address/tsl_emailaddress.h"

#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "base/Exception.h"

// The address comes first, as the handle's type promises. The text is made here once, so that it
// can be lent to C without a lock.
struct tsl_emailaddress_body final : Tessel::EmailAddress {
  explicit tsl_emailaddress_body(const Tessel::EmailAddress& address)
      : EmailAddress(address), text(address.address()) {}

  const std::string text;
};

struct tsl_emailaddress_container_body {
  std::vector<std::unique_ptr<tsl_emailaddress_body>> addresses;
};

tsl_emailaddress tsl_emailaddress_create(const Tessel::EmailAddress& address) {
  try {
    return new tsl_emailaddress_body(address);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

tsl_emailaddress tsl_emailaddress_parse(const char* text) {
  if (text == nullptr) return nullptr;
  try {
    const Tessel::EmailAddress address = Tessel::EmailAddress::rfc5321Parse(text, false);
    return address.isNull() ? nullptr : tsl_emailaddress_create(address);
  } catch (const Tessel::Exception&) {
    return nullptr;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

const char* tsl_emailaddress_text(tsl_emailaddress address) {
  return address != nullptr ? address->text.c_str() : nullptr;
}

void tsl_emailaddress_destroy(tsl_emailaddress address) {
  delete address;
}

tsl_emailaddress_container tsl_emailaddress_container_create() {
  return new (std::nothrow) tsl_emailaddress_container_body;
}

int tsl_emailaddress_container_append(tsl_emailaddress_container container,
                                      tsl_emailaddress address) {
  std::unique_ptr<tsl_emailaddress_body> owned(address);
  if (container == nullptr || owned == nullptr) return -1;
  try {
    container->addresses.push_back(std::move(owned));
    return 0;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

size_t tsl_emailaddress_container_size(tsl_emailaddress_container container) {
  return container != nullptr ? container->addresses.size() : 0;
}

tsl_emailaddress tsl_emailaddress_container_get(tsl_emailaddress_container container,
                                                size_t index) {
  if (index >= tsl_emailaddress_container_size(container)) return nullptr;
  return container->addresses[index].get();
}

void tsl_emailaddress_container_destroy(tsl_emailaddress_container container) {
  delete container;
}
