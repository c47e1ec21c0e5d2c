// Tests of the readings that the cache allows without its lock. What other threads do at the worst
// moment is done here at that moment: from within the comparison, or the copying, of a value.
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/LRUCache.h"

namespace Tessel {
namespace {

using testing::ElementsAre;
using namespace std::chrono_literals;

// A value that says when it is compared or copied, and how many of its kind there are.
struct Value {
  explicit Value(int value) : number(value) { ++s_alive; }
  Value(const Value& other) : number(other.number) {
    ++s_alive;
    if (const auto copied = s_copied) copied(other);
  }
  Value& operator=(const Value&) = delete;
  ~Value() {
    number = s_dead;
    --s_alive;
  }
  friend bool operator==(const Value& inCache, const Value& asked) {
    s_compared.push_back(inCache.number);
    // A copy, because the call may put another one in its place.
    if (const auto comparing = s_comparing) comparing(inCache.number);
    EXPECT_NE(inCache.number, s_dead);
    return inCache.number == asked.number;
  }

  int number;

  static constexpr int s_dead = -1;
  static inline std::atomic<int> s_alive = 0;
  static inline std::vector<int> s_compared;
  static inline std::function<void(int)> s_comparing;
  static inline std::function<void(const Value&)> s_copied;
};

class LRUCacheWalk : public testing::Test {
 protected:
  using Cache = LRUCache<int, Value>;

  // Holds 6, 5, 4, 3, 2, 1, in that order; the key of each value is ten times its number.
  LRUCacheWalk() {
    for (int i = 1; i <= 6; ++i) add(i);
    Value::s_compared.clear();
  }
  ~LRUCacheWalk() override {
    Value::s_comparing = nullptr;
    Value::s_copied = nullptr;
  }

  void add(int number) { m_cache.add(10 * number, Value(number)); }
  // What a hit of another thread does.
  void use(int number) { ASSERT_NE(m_cache.find(10 * number), m_cache.end()); }
  std::optional<int> keyOf(int number) { return m_cache.keyOf(Value(number)); }

  // Runs `action` once, when the walk compares the value `number`.
  static void onceAt(int number, std::function<void()> action) {
    Value::s_comparing = [number, action = std::move(action)](int compared) {
      if (compared != number) return;
      Value::s_comparing = nullptr;
      action();
    };
  }

  Cache m_cache{6};
};

TEST_F(LRUCacheWalk, AWalkGoesFromTheMostRecentEntryToTheOneThatItFindsAndIsNoUse) {
  EXPECT_EQ(keyOf(4), 40);
  EXPECT_THAT(Value::s_compared, ElementsAre(6, 5, 4));
  EXPECT_EQ(m_cache.begin()->first, 60);
}

TEST_F(LRUCacheWalk, AWalkThatFindsNothingLooksOnce) {
  EXPECT_EQ(keyOf(7), std::nullopt);
  EXPECT_THAT(Value::s_compared, ElementsAre(6, 5, 4, 3, 2, 1));
}

TEST_F(LRUCacheWalk, OnlyTheFirstOfEqualValuesIsFound) {
  m_cache.remove(10);
  m_cache.add(44, Value(4));
  EXPECT_EQ(keyOf(4), 44);
}

TEST_F(LRUCacheWalk, AnEntryThatIsMovedFromBehindTheWalkToTheFrontIsFound) {
  onceAt(4, [this] { use(1); });
  EXPECT_EQ(keyOf(1), 10);
  EXPECT_THAT(Value::s_compared, ElementsAre(6, 5, 4, 3, 2, 1));
}

TEST_F(LRUCacheWalk, OnlyWhatWasMovedIsLookedAtAgain) {
  onceAt(4, [this] {
    use(2);
    use(3);
  });
  EXPECT_EQ(keyOf(7), std::nullopt);
  EXPECT_THAT(Value::s_compared, ElementsAre(6, 5, 4, 1, 3, 2));
}

TEST_F(LRUCacheWalk, AWalkWhoseEntryIsMovedGoesOnFromTheFront) {
  onceAt(4, [this] { use(4); });
  EXPECT_EQ(keyOf(1), 10);
  EXPECT_THAT(Value::s_compared, ElementsAre(6, 5, 4, 6, 5, 3, 2, 1));
}

// The sought entry 1 is moved in every look, to a place that this look has passed.
TEST_F(LRUCacheWalk, AfterAFewDisturbedLooksTheLastOneIsTakenUnderTheSharedLock) {
  int looks = 0;
  int front = 6;
  std::future<void> writer;
  bool written = true;
  Value::s_comparing = [&](int compared) {
    if (compared != front) return;
    ++looks;
    if (looks <= 4) {
      front = front == 6 ? 5 : 6;
      use(1);
      use(front);
    } else {
      writer = std::async(std::launch::async, [this] { use(2); });
      written = writer.wait_for(100ms) == std::future_status::ready;
    }
  };
  EXPECT_EQ(keyOf(1), 10);
  EXPECT_EQ(looks, 5);
  EXPECT_FALSE(written);
  writer.get();
  EXPECT_EQ(m_cache.begin()->first, 20);
}

TEST_F(LRUCacheWalk, AnEntryThatIsTakenOutUnderTheWalkStaysAliveUntilItLeaves) {
  const int before = Value::s_alive;
  onceAt(4, [this, before] {
    m_cache.remove(40);
    EXPECT_EQ(Value::s_alive, before + 1);  // The one more is the value that is asked for.
  });
  EXPECT_EQ(keyOf(1), 10);
  EXPECT_THAT(Value::s_compared, ElementsAre(6, 5, 4, 6, 5, 3, 2, 1));
  m_cache.remove(50);
  EXPECT_EQ(Value::s_alive, before - 2);
}

TEST_F(LRUCacheWalk, AnEntryThatIsTakenOutIsDestroyedAtOnceWhenNobodyReads) {
  const int before = Value::s_alive;
  m_cache.remove(40);
  EXPECT_EQ(Value::s_alive, before - 1);
  add(7);
  add(8);  // Evicts 1.
  EXPECT_EQ(Value::s_alive, before);
  m_cache.removeNoLock(70);
  EXPECT_EQ(Value::s_alive, before - 1);
  m_cache.clear();
  EXPECT_EQ(Value::s_alive, before - 6);
}

TEST_F(LRUCacheWalk, AnEntryThatIsEvictedUnderTheWalkIsNotReadOn) {
  onceAt(1, [this] { add(7); });
  EXPECT_EQ(keyOf(8), std::nullopt);
  EXPECT_THAT(Value::s_compared, ElementsAre(6, 5, 4, 3, 2, 1, 7, 6, 5, 4, 3, 2));
}

TEST_F(LRUCacheWalk, ACacheThatIsEmptiedUnderTheWalkHoldsNothing) {
  const int before = Value::s_alive;
  onceAt(4, [this] { m_cache.clear(); });
  EXPECT_EQ(keyOf(1), std::nullopt);
  EXPECT_EQ(Value::s_alive, before);
  add(1);
  EXPECT_EQ(Value::s_alive, before - 5);
}

TEST_F(LRUCacheWalk, AnEntryThatIsAddedDuringAWalkIsSeen) {
  m_cache.remove(10);
  onceAt(4, [this] { add(7); });
  EXPECT_EQ(keyOf(7), 70);
}

TEST_F(LRUCacheWalk, AValueIsCopiedWithoutTheLockAndStaysAliveMeanwhile) {
  int copied = 0;
  Value::s_copied = [&](const Value& source) {
    Value::s_copied = nullptr;
    m_cache.remove(30);  // Would wait for ever if the lock was held.
    copied = source.number;
  };
  const std::optional<Value> got = m_cache.copyOf(30);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->number, 3);
  EXPECT_EQ(copied, 3);
}

TEST_F(LRUCacheWalk, CopyOfIsAUseAndGivesNothingOnAMiss) {
  EXPECT_EQ(m_cache.copyOf(30)->number, 3);
  EXPECT_EQ(m_cache.begin()->first, 30);
  EXPECT_FALSE(m_cache.copyOf(31));
  EXPECT_EQ(m_cache.begin()->first, 30);
}

TEST_F(LRUCacheWalk, AFailedCopyLeavesNoReaderBehind) {
  const int before = Value::s_alive;
  Value::s_copied = [](const Value& /*source*/) {
    --Value::s_alive;  // The copy that is not made.
    throw std::runtime_error("copy");
  };
  EXPECT_THROW(static_cast<void>(m_cache.copyOf(30)), std::runtime_error);
  Value::s_copied = nullptr;
  m_cache.remove(30);
  EXPECT_EQ(Value::s_alive, before - 1);
}

TEST_F(LRUCacheWalk, ChangesCountsWhatIsAddedOrTakenOutAndNothingElse) {
  const auto before = m_cache.changes();
  use(1);
  add(1);
  m_cache.remove(99);
  static_cast<void>(keyOf(1));
  EXPECT_EQ(m_cache.changes(), before);
  m_cache.remove(10);
  EXPECT_EQ(m_cache.changes(), before + 1);
  add(1);
  EXPECT_EQ(m_cache.changes(), before + 2);
  add(7);  // And evicts one.
  EXPECT_EQ(m_cache.changes(), before + 4);
  m_cache.clear();
  EXPECT_EQ(m_cache.changes(), before + 5);
}

// One reader that stays inside keeps alive what is taken out, up to the capacity: then whoever
// takes out more waits for it.
TEST_F(LRUCacheWalk, AReaderThatStaysMakesWritersWaitInsteadOfFillingTheMemory) {
  const int before = Value::s_alive;
  std::promise<void> arrived;
  std::promise<void> leave;
  onceAt(4, [&] {
    arrived.set_value();
    leave.get_future().wait();
  });
  auto reader = std::async(std::launch::async, [this] { return keyOf(1); });
  arrived.get_future().wait();
  std::atomic<int> added = 0;
  auto writer = std::async(std::launch::async, [this, &added] {
    for (int i = 101; i <= 120; ++i, ++added) add(i);
  });
  EXPECT_EQ(writer.wait_for(300ms), std::future_status::timeout);
  EXPECT_EQ(added, 6);
  EXPECT_LE(Value::s_alive, before + 6 + 3);
  leave.set_value();
  EXPECT_EQ(reader.get(), std::nullopt);
  writer.get();
  EXPECT_EQ(added, 20);
  EXPECT_EQ(Value::s_alive, before);
}

}  // namespace
}  // namespace Tessel
