// Tests of the counts of readers.
#include "core/Readers.h"

#include <memory>
#include <thread>

#include <gtest/gtest.h>

namespace Tessel {
namespace {

using Inside = Readers::Inside;

TEST(Readers, WithoutReadersAllHaveLeft) {
  Readers readers;
  readers.watch();
  EXPECT_TRUE(readers.haveLeft());
}

TEST(Readers, AReaderThatIsInsideIsWaitedFor) {
  Readers readers;
  auto reader = std::make_unique<Inside>(readers);
  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
  EXPECT_FALSE(readers.haveLeft());
  reader.reset();
  EXPECT_TRUE(readers.haveLeft());
}

TEST(Readers, AReaderThatEnteredUnderTheLockIsWaitedFor) {
  Readers readers;
  auto reader = std::make_unique<Inside>(readers, Inside::Locked());
  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
  reader.reset();
  EXPECT_TRUE(readers.haveLeft());
}

TEST(Readers, AReaderThatLeavesOnAnotherProcessorHasLeft) {
  Readers readers;
  auto reader = std::make_unique<Inside>(readers);
  readers.watch();
  ASSERT_FALSE(readers.haveLeft());
  // Whichever processor it is: the thread that enters and the one that leaves are two.
  std::thread([&reader] { reader.reset(); }).join();
  EXPECT_TRUE(readers.haveLeft());
}

// Readers that overlap without end do not keep a writer waiting for ever.
TEST(Readers, ThoseThatComeLaterAreNotWaitedFor) {
  Readers readers;
  auto first = std::make_unique<Inside>(readers);
  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
  auto second = std::make_unique<Inside>(readers);
  first.reset();
  EXPECT_TRUE(readers.haveLeft());

  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
  const Inside third(readers, Inside::Locked());
  second.reset();
  EXPECT_TRUE(readers.haveLeft());

  readers.watch();
  EXPECT_FALSE(readers.haveLeft());
}

}  // namespace
}  // namespace Tessel
