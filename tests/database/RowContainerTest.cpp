// RowContainer: shares the rows that it is given, in their order.
#include "database/RowContainer.h"

#include <gtest/gtest.h>

namespace Tessel::Database {
namespace {

class Row : public RowImpl {
 public:
  explicit Row(int& destroyed) : m_destroyed(destroyed) {}
  ~Row() override { ++m_destroyed; }
  bool parse(void*, void*, void*) override { return true; }

 private:
  int& m_destroyed;
};

TEST(RowContainer, RowsKeepTheirOrderAndLiveAsLongAsTheContainer) {
  int destroyed = 0;
  auto* const first = new Row(destroyed);
  auto* const second = new Row(destroyed);
  {
    RowContainer container;
    EXPECT_TRUE(container.rows().empty());
    container.add(Ref<RowImpl>(first));
    container.add(Ref<RowImpl>(second));
    ASSERT_EQ(container.rows().size(), 2U);
    EXPECT_EQ(*container.rows().front(), first);
    EXPECT_EQ(*container.rows().back(), second);
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 2);
}

TEST(RowContainer, ARowThatIsHeldElsewhereOutlivesTheContainer) {
  int destroyed = 0;
  Ref<RowImpl> kept;
  {
    RowContainer container;
    container.add(Ref<RowImpl>(new Row(destroyed)));
    kept = container.rows().front();
  }
  EXPECT_EQ(destroyed, 0);
  EXPECT_TRUE(kept->parse(nullptr, nullptr, nullptr));
}

}  // namespace
}  // namespace Tessel::Database
