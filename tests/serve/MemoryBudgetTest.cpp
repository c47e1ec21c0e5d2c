// The memory that answers share.
#include "serve/base/MemoryBudget.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/ScratchFile.h"

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

// A control group with a limit, in files like those of the system.
class ControlGroup {
 public:
  explicit ControlGroup(const std::string& memberships) {
    for (const char* directory : {"/proc/self", "/sys/fs/cgroup/a/b"}) {
      std::filesystem::create_directories(root() + directory);
    }
    std::ofstream(root() + "/proc/self/cgroup") << memberships;
  }

  [[nodiscard]] const std::string& root() const { return m_scratch.directory(); }
  void limit(const std::string& group, const std::string& memory) const {
    std::ofstream(root() + "/sys/fs/cgroup" + group + "/memory.max") << memory << "\n";
  }

 private:
  Testing::ScratchFile m_scratch;
};

TEST(MemoryBudget, TheLimitsOfTheControlGroupAndOfThoseAboveItHold) {
  const std::size_t all = availableMemory("/nonexistent");
  EXPECT_GE(all, availableMemory());
  const ControlGroup group("1:name=other:/\n0::/a/b\n");
  EXPECT_EQ(availableMemory(group.root()), all);
  group.limit("/a/b", "max");
  EXPECT_EQ(availableMemory(group.root()), all);
  group.limit("/a/b", "3000000");
  EXPECT_EQ(availableMemory(group.root()), 3000000U);
  group.limit("/a", "2000000");
  EXPECT_EQ(availableMemory(group.root()), 2000000U);
  group.limit("/a", "4000000");
  EXPECT_EQ(availableMemory(group.root()), 3000000U);
  group.limit("", "1000000");
  EXPECT_EQ(availableMemory(group.root()), 1000000U) << "of a container";
}

}  // namespace
}  // namespace Tessel::Serve
