// The rows of a numbered table of a domain, as a range of records that are read in place.
#ifndef TSL_CMF_TABLEQUERY_H
#define TSL_CMF_TABLEQUERY_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>

#include "TslRefcounted.h"
#include "base/Exception.h"
#include "base/sourceLine.h"
#include "cmf/cmf_query.h"

namespace Tessel::CMF {

// Table `TableId` of one domain in the state that is newest when the query is made, or that the
// calling thread has locked. `Record` is the struct of its rows. One thread at a time; a reference
// to a record lives as long as the query. Rows are in ascending order of their lower-cased names.
// Every failure throws Exception, context "CMF::TableQuery", code 4, with the reason.
template <class Record, std::uint32_t TableId>
class TableQuery : public NonCopyable {
  static_assert(std::is_trivially_copyable_v<Record> && std::is_standard_layout_v<Record>);

 public:
  // Visits the rows by index. It refers to its query, which must outlive it. Iterators of one query
  // may be used in turn; going back and forth between distant rows costs time in proportion to the
  // distance.
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Record;
    using difference_type = std::ptrdiff_t;
    using pointer = const Record*;
    using reference = const Record&;

    Iterator() = default;

    // The row. Throws Exception when there is none at this index or it cannot be read.
    reference operator*() const { return m_query->row(m_index); }
    pointer operator->() const { return &m_query->row(m_index); }
    Iterator& operator++() {
      ++m_index;
      return *this;
    }
    Iterator operator++(int) {
      const Iterator before = *this;
      ++m_index;
      return before;
    }
    friend bool operator==(const Iterator&, const Iterator&) = default;

   private:
    friend class TableQuery;
    Iterator(const TableQuery* query, std::int32_t index) : m_query(query), m_index(index) {}

    const TableQuery* m_query = nullptr;
    std::int32_t m_index = 0;
  };

  // Has the calling thread read one state while in scope, if that is wanted. Throws Exception when
  // there is none.
  class ReadLock {
   public:
    explicit ReadLock(bool wanted = true) : m_held(wanted) {
      if (wanted && cmf_shm_read_lock() != 0) fail();
    }
    ~ReadLock() {
      if (m_held) cmf_shm_read_unlock();
    }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

   private:
    bool m_held;
  };

  // Opens the table of the domain with identifier `domainId`. With `takeReadLock` true the calling
  // thread reads one state as long as the query lives, which must then end on the same thread.
  // Throws Exception when there is no such table, its rows are no `Record`, or it cannot be read.
  explicit TableQuery(std::uint32_t domainId, bool takeReadLock = false)
      : m_lock(takeReadLock), m_query(cmf_query_create_withdomain(domainId, TableId)) {
    if (m_query == nullptr) fail();
    const std::size_t stored = cmf_query_record_size(m_query.get());
    if (stored != sizeof(Record)) {
      fail("Rows of table " + std::to_string(TableId) + " have " + std::to_string(stored) +
           " bytes, this program reads " + std::to_string(sizeof(Record)));
    }
    m_count = cmf_query_do_table_size(m_query.get(), CMF_QUERY_SLOT);
  }

  // Number of rows. A count that is not known yet is asked for again; throws Exception when there
  // is still none.
  [[nodiscard]] std::int32_t size() const {
    if (m_count == s_unknown) m_count = cmf_query_do_table_size(m_query.get(), CMF_QUERY_SLOT);
    if (m_count == s_unknown) fail();
    return m_count;
  }

  // The first row, and the end behind the last. Both throw as `size`.
  [[nodiscard]] Iterator begin() const { return Iterator(this, size() > 0 ? 0 : m_count); }
  [[nodiscard]] Iterator end() const { return Iterator(this, size()); }

 private:
  static constexpr std::int32_t s_unknown = -1;

  struct Free {
    void operator()(cmf_query* query) const noexcept { cmf_query_free(query); }
  };

  [[noreturn]] static void fail(const std::string& detail = cmf_query_error(),
                                int line = sourceLine()) {
    throw Exception(Exception("CMF::TableQuery", 4, "TableQuery", line).stringParameter(detail));
  }

  const Record& row(std::int32_t index) const {
    if (index != m_selected) {
      if (cmf_set_query_cache_st(m_query.get(), CMF_QUERY_SLOT, index) != 0) fail();
      m_selected = index;
    }
    const void* const record = cmf_query_update(m_query.get());
    if (record == nullptr) fail();
    return *static_cast<const Record*>(record);
  }

  // Freed in reverse order: the query, then the lock.
  ReadLock m_lock;
  std::unique_ptr<cmf_query, Free> m_query;
  mutable std::int32_t m_count = s_unknown;
  mutable std::int32_t m_selected = s_unknown;
};

}  // namespace Tessel::CMF

#endif
