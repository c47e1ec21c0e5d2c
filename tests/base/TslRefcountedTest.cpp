// Tests of the reference-counted handles.
#include "TslRefcounted.h"

#include <memory>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/Layout.h"

namespace Tessel {
namespace {

// A body that counts how often it is destroyed, holding `RefImpl` directly or virtually.
class DirectBody : public RefImpl {
 public:
  explicit DirectBody(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
  ~DirectBody() override { ++m_destroyed; }

 private:
  std::atomic<int>& m_destroyed;
};

class VirtualBase : public virtual RefImpl {
 public:
  long m_padding = 0;
};

class VirtualBody : public VirtualBase {
 public:
  explicit VirtualBody(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
  ~VirtualBody() override { ++m_destroyed; }

 private:
  std::atomic<int>& m_destroyed;
};

TEST(RefCounted, TheFirstWrapperTakesOverTheFirstReference) {
  std::atomic<int> destroyed{0};
  auto wrapper = std::make_unique<RefCounted<DirectBody>>(new DirectBody(destroyed), false);
  EXPECT_EQ(destroyed, 0);
  wrapper.reset();
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCounted, TheLastOfManyReferencesDestroysTheBodyOnce) {
  std::atomic<int> destroyed{0};
  std::vector<std::unique_ptr<RefCounted<DirectBody>>> wrappers;
  wrappers.push_back(std::make_unique<RefCounted<DirectBody>>(new DirectBody(destroyed), false));
  for (int i = 0; i < 5; ++i) {
    wrappers.push_back(std::make_unique<RefCounted<DirectBody>>(wrappers[0]->body(), true));
  }
  wrappers.erase(wrappers.begin());
  while (wrappers.size() > 1) {
    wrappers.erase(wrappers.begin() + static_cast<std::ptrdiff_t>(wrappers.size() / 2));
    EXPECT_EQ(destroyed, 0);
  }
  wrappers.clear();
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCounted, ABodyWithAVirtualBaseIsCountedAndItsMostDerivedDestructorRuns) {
  std::atomic<int> destroyed{0};
  {
    RefCounted<VirtualBase> first(new VirtualBody(destroyed), false);
    const RefCounted<VirtualBase> second(first.body(), true);
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCounted, ANullBodyOfEitherKindIsIgnored) {
  const RefCounted<DirectBody> direct(nullptr, false);
  const RefCounted<VirtualBase> indirect(nullptr, false);
  EXPECT_EQ(direct.body(), nullptr);
  EXPECT_EQ(indirect.body(), nullptr);
}

TEST(RefCounted, CountingANullBodyThrowsWithoutPosition) {
  try {
    const RefCounted<DirectBody> wrapper(nullptr, true);
    FAIL() << "accepted";
  } catch (const Exception& got) {
    EXPECT_EQ(got.context(), "RefCounted constructor for RefImpl failed.");
    EXPECT_EQ(got.code(), 4);
    EXPECT_EQ(got.file(), nullptr);
    EXPECT_EQ(got.line(), 0);
    EXPECT_EQ(got.stringParameter(), "");
    EXPECT_EQ(got.cause(), nullptr);
  }
}

TEST(RefCounted, EqualityIsIdentityOfTheBody) {
  std::atomic<int> destroyed{0};
  const RefCounted<DirectBody> a(new DirectBody(destroyed), false);
  const RefCounted<DirectBody> sameAsA(a.body(), true);
  const RefCounted<DirectBody> b(new DirectBody(destroyed), false);
  const RefCounted<DirectBody> none(nullptr, false);
  const RefCounted<DirectBody> alsoNone(nullptr, false);
  EXPECT_TRUE(a.operator==(sameAsA));
  EXPECT_FALSE(a.operator==(b));
  EXPECT_FALSE(a.operator==(none));
  EXPECT_TRUE(none.operator==(alsoNone));
}

TEST(RefCounted, AdoptingWithoutMemoryWouldLeakNothing) {
  std::atomic<int> destroyed{0};
  delete RefCountedAdopt(new DirectBody(destroyed));
  EXPECT_EQ(destroyed, 1);
  delete RefCountedAdopt<DirectBody>(nullptr);
}

TEST(RefCountedImplCopy, CopyingTheSameWrapperDoesNothing) {
  std::atomic<int> destroyed{0};
  auto* wrapper = new RefCounted<DirectBody>(new DirectBody(destroyed), false);
  auto* const before = wrapper;
  RefCountedImplCopy(wrapper, wrapper);
  EXPECT_EQ(wrapper, before);
  EXPECT_EQ(destroyed, 0);
  delete wrapper;
}

TEST(RefCountedImplCopy, ANullSourceLeavesANullTargetAndReleasesItsReference) {
  std::atomic<int> destroyed{0};
  auto* wrapper = new RefCounted<DirectBody>(new DirectBody(destroyed), false);
  RefCountedImplCopy<DirectBody>(wrapper, nullptr);
  EXPECT_EQ(wrapper, nullptr);
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedImplCopy, ASourceWithANullBodyGivesANewWrapperWithANullBody) {
  const RefCounted<DirectBody> source(nullptr, false);
  RefCounted<DirectBody>* target = nullptr;
  RefCountedImplCopy(target, &source);
  ASSERT_NE(target, nullptr);
  EXPECT_NE(target, &source);
  EXPECT_EQ(target->body(), nullptr);
  delete target;
}

TEST(Ref, CopiesShareTheBody) {
  std::atomic<int> destroyed{0};
  {
    const Ref<DirectBody> first(new DirectBody(destroyed));
    const Ref<DirectBody> second(first);
    EXPECT_EQ(first.operator->(), second.operator->());
    EXPECT_EQ(*first, first.operator->());
    EXPECT_FALSE(first.isNull());
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(Ref, CopyingADefaultHandleGivesAHandleWithoutWrapper) {
  const Ref<DirectBody> none;
  const Ref<DirectBody> copy(none);
  EXPECT_TRUE(copy.isNull());
  EXPECT_THROW(copy.operator->(), Exception);
}

TEST(Ref, AssigningADefaultHandleReleasesTheFormerReference) {
  std::atomic<int> destroyed{0};
  Ref<DirectBody> target(new DirectBody(destroyed));
  target = Ref<DirectBody>();
  EXPECT_EQ(destroyed, 1);
  EXPECT_THROW(target.operator->(), Exception);
}

TEST(Ref, CopyingAHandleWithANullBodyDoesNotThrow) {
  const Ref<DirectBody> source(nullptr);
  const Ref<DirectBody> copy(source);
  EXPECT_EQ(copy.operator->(), nullptr);
  EXPECT_EQ(*copy, nullptr);
  EXPECT_TRUE(copy.isNull());
}

TEST(Ref, MovingHandsTheReferenceOver) {
  std::atomic<int> destroyed{0};
  {
    Ref<DirectBody> source(new DirectBody(destroyed));
    const Ref<DirectBody> target(std::move(source));
    EXPECT_FALSE(target.isNull());
    // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): what is left is tested
    EXPECT_TRUE(source.isNull());
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(Ref, SelfAssignmentChangesNothing) {
  std::atomic<int> destroyed{0};
  Ref<DirectBody> handle(new DirectBody(destroyed));
  const Ref<DirectBody>& itself = handle;
  handle = itself;
  EXPECT_EQ(destroyed, 0);
  EXPECT_FALSE(handle.isNull());
}

void s_expectEmptyHandle(const Exception& got, const char* context, int line) {
  EXPECT_EQ(got.context(), context);
  EXPECT_EQ(got.code(), 1);
  EXPECT_STREQ(got.file(), "TslRefcounted");
  EXPECT_EQ(got.line(), line);
  EXPECT_EQ(got.stringParameter(), "");
  EXPECT_EQ(got.cause(), nullptr);
}

TEST(Ref, UsingAHandleWithoutWrapperThrows) {
  const Ref<DirectBody> none;
  try {
    none.operator->();
    FAIL() << "accepted";
  } catch (const Exception& got) {
    s_expectEmptyHandle(got, "operator->", 359);
  }
  try {
    static_cast<void>(*none);
    FAIL() << "accepted";
  } catch (const Exception& got) {
    s_expectEmptyHandle(got, "operator*", 386);
  }
}

TEST(Ref, ManyThreadsMayCopyAndDestroyHandlesOfOneBody) {
  std::atomic<int> destroyed{0};
  {
    const Ref<DirectBody> shared(new DirectBody(destroyed));
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([copy = shared] {
        for (int n = 0; n < 2000; ++n) {
          Ref<DirectBody> mine(copy);
          Ref<DirectBody> other;
          other = mine;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(Ref, TheLastReferenceMayGoOnAnyThread) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> destroyed{0};
    auto handle = std::make_unique<Ref<DirectBody>>(new DirectBody(destroyed));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([copy = *handle] {});
    handle.reset();
    for (std::thread& thread : threads) thread.join();
    threads.clear();
    EXPECT_EQ(destroyed, 1);
  }
}

TEST(RefcountedLayout, VirtualOperationsStandInTheirSlots) {
  // The complete and the deleting destructor take the slots 0 and 1.
  EXPECT_EQ(Testing::virtualSlot(&RefCounted<DirectBody>::operator==), 2);
  static_assert(std::is_polymorphic_v<RefImpl>);
  static_assert(std::has_virtual_destructor_v<RefImpl>);
  static_assert(std::is_polymorphic_v<RefCounted<DirectBody>>);
  static_assert(std::is_polymorphic_v<Ref<DirectBody>>);
  static_assert(std::has_virtual_destructor_v<Ref<DirectBody>>);
}

TEST(RefcountedLayout, ObjectsHoldOneField) {
  static_assert(sizeof(RefImpl) == 2 * sizeof(void*));
  static_assert(sizeof(std::atomic<std::int32_t>) == 4);
  static_assert(sizeof(RefCounted<DirectBody>) == 2 * sizeof(void*));
  static_assert(sizeof(Ref<DirectBody>) == 2 * sizeof(void*));
  static_assert(std::is_empty_v<NonCopyable>);
  static_assert(!std::is_copy_constructible_v<NonCopyable>);
  SUCCEED();
}

}  // namespace
}  // namespace Tessel
