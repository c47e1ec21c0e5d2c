// The server record of a domain, and the handle that a lookup gives.
#ifndef TSL_CMF_APSGWSERVER_H
#define TSL_CMF_APSGWSERVER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "TslRefcounted.h"
#include "base/Export.h"

namespace Tessel::CMF {

// Longest domain in octets (RFC 5321, 4.5.3.1.2).
constexpr std::size_t s_maxDomain = 255;

// One domain as it is stored. The layout is the storage format: a change needs a new format
// version.
struct ApsGwServerRecord {
  char domain[s_maxDomain + 1];  // NUL-terminated, spelled as given.
  std::uint32_t domainId;        // Never 0, never used again after the domain is removed.
  std::uint32_t reserved;        // Always 0.
};

static_assert(std::is_trivially_copyable_v<ApsGwServerRecord>);
static_assert(std::is_standard_layout_v<ApsGwServerRecord>);
static_assert(offsetof(ApsGwServerRecord, domain) == 0);
static_assert(offsetof(ApsGwServerRecord, domainId) == 256);
static_assert(sizeof(ApsGwServerRecord) == 264);

// Body: a copy of one server record. Immutable, so any thread may read it at any time.
class TSL_EXPORT ApsGwServer : public RefImpl {
 public:
  // Copies `record`, whose domain must be NUL-terminated.
  explicit ApsGwServer(const ApsGwServerRecord& record);
  ~ApsGwServer() override;

  // The domain, spelled as it was given to the writer.
  [[nodiscard]] std::string domain() const;
  // The identifier that names the domain's tables.
  [[nodiscard]] std::uint32_t domainId() const noexcept;

 private:
  ApsGwServerRecord m_record;
};

// Handle over a server record. It holds nothing (`isNull()`) when the domain is unknown.
class TSL_EXPORT RefApsGwServer : public Ref<ApsGwServer> {
 public:
  using Ref<ApsGwServer>::Ref;
};

}  // namespace Tessel::CMF

#endif
