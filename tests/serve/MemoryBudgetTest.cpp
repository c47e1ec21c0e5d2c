// The memory that answers share.
#include "serve/base/MemoryBudget.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace Tessel::Serve {
namespace {

TEST(MemoryBudget, GivesNoMoreThanThereIs) {
  MemoryBudget budget(100);
  EXPECT_TRUE(budget.take(60));
  EXPECT_FALSE(budget.take(41));
  EXPECT_EQ(budget.used(), 60U);
  EXPECT_TRUE(budget.take(40));
  EXPECT_FALSE(budget.take(1));
  EXPECT_TRUE(budget.take(0));
  budget.give(60);
  EXPECT_EQ(budget.used(), 40U);
  EXPECT_FALSE(budget.take(SIZE_MAX));
  EXPECT_EQ(budget.most(), 100U);
}

TEST(MemoryBudget, ABlockIsAsLargeAsTheAllocatorMadeIt) {
  EXPECT_EQ(blockSize(static_cast<const void*>(nullptr)), 0U);
  const auto block = std::make_unique<char[]>(1000);
  EXPECT_GE(blockSize(block.get()), 1000 + sizeof(std::size_t));
  EXPECT_LT(blockSize(block.get()), 2000U);
}

TEST(MemoryBudget, AShortTextHasNoBlock) {
  EXPECT_EQ(blockSize(std::string("short")), 0U);
  EXPECT_GE(blockSize(std::string(1000, 'x')), 1000U);
}

TEST(MemoryBudget, TheMemoryOfTheHostIsTheMost) {
  const auto pages = static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES));
  const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  EXPECT_GT(availableMemory(), std::size_t{1} << 20U);
  EXPECT_LE(availableMemory(), pages * size);
}

}  // namespace
}  // namespace Tessel::Serve
