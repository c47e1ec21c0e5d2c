// The one home of RefImpl's virtual table.
#include "TslRefcounted.h"

namespace Tessel {

RefImpl::~RefImpl() = default;

}  // namespace Tessel
