// RowContainer, and the destructor that anchors RowImpl's virtual table in this library.
#include "database/RowContainer.h"

#include <utility>

namespace Tessel::Database {

RowImpl::~RowImpl() = default;

void RowContainer::add(const Ref<RowImpl>& row) {
  m_rows.push_back(row);
}

void RowContainer::add(Ref<RowImpl>&& row) {
  m_rows.push_back(std::move(row));
}

}  // namespace Tessel::Database
