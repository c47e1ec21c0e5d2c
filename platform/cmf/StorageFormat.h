// The storage format of the configuration, in one place. Private to platform/cmf.
//
// FILES. The directory holds one LMDB environment: `data.mdb` with the records and `lock.mdb` with
// the table of readers and the writers' lock. The first writer makes the directory (0750),
// `data.mdb` (0640) and `lock.mdb` (0660). Readers register themselves in `lock.mdb`, so they need
// write permission on it although they change no record. For mail-server processes of another
// group, make the directory beforehand, owned by the writing user and set-group-id to the readers'
// group
// (`install -d -o writer -g readers -m 2750 /var/lib/tsl/cmf`): the files inherit that group. Who
// may write `lock.mdb` can disturb every user of the configuration, so give that group to nobody
// else. The processes must share one host and one process-id namespace; network file systems do not
// work. Replace the configuration of running programs by writing to it, or by renaming a whole
// directory into place; never replace `data.mdb` or `lock.mdb` alone.
//
// RECORDS. All records lie in the environment's unnamed database, in ascending order of the bytes
// of their keys. A key is two 32-bit numbers in big-endian order and a name:
//
//   group  table  name            value
//   0      0      -               `MetaRecord`: format version and the last domain identifier used
//   0      1      domain          `ApsGwServerRecord` of a domain
//   d      t      -               `TableRecord` of table t of the domain with identifier d
//   d      t      row name        a row of that table; for table 346, `__aps_mail_user`
//
// The name in a key is ASCII-lower-cased, so that names that differ in letter case are one record,
// and padded with NUL to a multiple of 8 bytes. Padding keeps the order, because no name holds a
// NUL. The row itself keeps the name as it was given. A table exists when its `TableRecord` does;
// it comes right before its rows, and its count is changed in the same transaction as they are.
// Adding a domain makes its empty table 346; removing it removes everything in its group.
//
// ALIGNMENT. Records are structs in the byte order of the host, read in place. LMDB packs a node of
// 8 header bytes, key and value against the end of a page. Every key and every value here is a
// multiple of 8 bytes long, so every value starts on a multiple of 8. A value that does not (a file
// that others wrote) is refused when it is read.
//
// VERSIONS. A reader refuses any version but its own; so does a writer.
//
// DAMAGE. A file that is no environment, one that is cut off, and records that are malformed are
// refused. LMDB keeps no checksums: damage inside a page or a name may go unnoticed, or end the
// process. What is lost can always be reloaded from where domains and users are administered.
#ifndef TSL_CMF_STORAGEFORMAT_H
#define TSL_CMF_STORAGEFORMAT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "cmf/ApsGwServer.h"
#include "cmf/MailUser.h"

namespace Tessel::CMF {

constexpr std::uint32_t s_formatVersion = 1;
constexpr char s_formatMagic[8] = {'T', 'S', 'L', 'C', 'M', 'F', '\n', '\0'};

// Group of the records that belong to no domain, and its tables.
constexpr std::uint32_t s_commonGroup = 0;
constexpr std::uint32_t s_metaTable = 0;
constexpr std::uint32_t s_domainTable = 1;

// Keys and values are multiples of this many bytes, and values start on one.
constexpr std::size_t s_unit = 8;

struct MetaRecord {
  char magic[8];               // `s_formatMagic`.
  std::uint32_t version;       // `s_formatVersion`.
  std::uint32_t lastDomainId;  // Identifiers only grow, so none is used twice.
};
static_assert(sizeof(MetaRecord) == 16);

struct TableRecord {
  std::int64_t count;        // Rows of the table.
  std::uint32_t recordSize;  // Bytes of each row.
  std::uint32_t reserved;    // Always 0.
};
static_assert(sizeof(TableRecord) == 16);

static_assert(sizeof(MetaRecord) % s_unit == 0 && sizeof(TableRecord) % s_unit == 0);
static_assert(sizeof(ApsGwServerRecord) % s_unit == 0 && sizeof(__aps_mail_user) % s_unit == 0);

// `name` with ASCII upper-case letters as lower-case ones; other bytes stay, whatever the locale.
inline std::string foldName(std::string_view name) {
  std::string folded(name);
  for (char& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
  return folded;
}

// The key of a record. A value; `foldedName` must be at most `s_maxDomain` bytes.
class Key {
 public:
  Key(std::uint32_t group, std::uint32_t table, std::string_view foldedName = {}) {
    putNumber(0, group);
    putNumber(4, table);
    foldedName.copy(m_bytes.data() + s_prefix, foldedName.size());
    m_size = s_prefix + (foldedName.size() + s_unit - 1) / s_unit * s_unit;
  }

  [[nodiscard]] const char* data() const noexcept { return m_bytes.data(); }
  [[nodiscard]] std::size_t size() const noexcept { return m_size; }

  // True when the key `data` of `size` bytes begins with the group and table of this one.
  [[nodiscard]] bool sameTable(const void* data, std::size_t size) const noexcept {
    return size >= s_prefix && std::memcmp(data, m_bytes.data(), s_prefix) == 0;
  }
  // True when the key `data` of `size` bytes begins with the group of this one.
  [[nodiscard]] bool sameGroup(const void* data, std::size_t size) const noexcept {
    return size >= s_prefix && std::memcmp(data, m_bytes.data(), s_prefix / 2) == 0;
  }

 private:
  static constexpr std::size_t s_prefix = 8;
  static constexpr std::size_t s_nameRoom = (s_maxDomain + s_unit) / s_unit * s_unit;

  void putNumber(std::size_t offset, std::uint32_t number) noexcept {
    for (std::size_t i = 0; i < 4; ++i) {
      m_bytes[offset + i] = static_cast<char>((number >> (24U - 8U * i)) & 0xffU);
    }
  }

  std::array<char, s_prefix + s_nameRoom> m_bytes{};
  std::size_t m_size = 0;
};

}  // namespace Tessel::CMF

#endif
