// Reference-counted handles: every public object is a thin handle over a shared body. A handle owns
// one wrapper; wrappers of the same body share it; the last reference destroys it.
//
// Threads: any threads may copy and destroy handles that share a body, at the same time. One
// handle object is not protected: no two threads may assign to it, or destroy it, at the same time.
#ifndef TSL_REFCOUNTED_H
#define TSL_REFCOUNTED_H

#include <atomic>
#include <cstdint>
#include <utility>

#include "base/Exception.h"
#include "base/Export.h"

namespace Tessel {

template <class T>
class RefCounted;

// Base class of every body. The count starts at 1: that first reference belongs to the creator of
// the body and is passed to the first wrapper without counting it again. A body may derive from it
// directly or virtually.
class TSL_EXPORT RefImpl {
 public:
  RefImpl() = default;
  RefImpl(const RefImpl&) = delete;
  RefImpl& operator=(const RefImpl&) = delete;
  virtual ~RefImpl();

 private:
  template <class T>
  friend class RefCounted;

  std::atomic<std::int32_t> m_references{1};
};

// Marks a type as not copyable.
class NonCopyable {
 public:
  NonCopyable(const NonCopyable&) = delete;
  NonCopyable& operator=(const NonCopyable&) = delete;

 protected:
  NonCopyable() = default;
  ~NonCopyable() = default;
};

// The wrapper: one reference to a body, or to none.
template <class T>
class RefCounted {
 public:
  // Refers to `body`, which may be null. With `addRef` true the reference is counted, and a null
  // body throws Exception, code 4, without a source position; with `addRef` false the wrapper takes
  // over a reference that the caller holds.
  RefCounted(T* body, bool addRef) : m_body(body) {
    if (!addRef) return;
    if (body == nullptr) {
      // Deliberate: the only failure of the library without file and line.
      // Pinned by RefCounted.CountingANullBodyThrowsWithoutPosition.
      throw Exception("RefCounted constructor for RefImpl failed.", 4, nullptr, 0);
    }
    s_base(body)->m_references.fetch_add(1);
  }
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;

  // Drops the reference. The value that the decrement itself returns decides who destroys the body,
  // so exactly one thread does.
  virtual ~RefCounted() {
    RefImpl* const base = s_base(m_body);
    if (base != nullptr && base->m_references.fetch_sub(1) == 1) delete base;
  }

  // True when both wrappers refer to the same body; two wrappers without a body are equal.
  virtual bool operator==(const RefCounted& other) const { return m_body == other.m_body; }

  // The body, or null. Valid as long as any reference to it.
  [[nodiscard]] T* body() const noexcept { return m_body; }

 private:
  // A null body converts to null, also where `RefImpl` is a virtual base.
  static RefImpl* s_base(T* body) noexcept { return body; }

  T* m_body;
};

// A wrapper that takes over the only reference to the new body `body`, which may be null. When
// there is no memory for it the body is destroyed, and std::bad_alloc thrown.
template <class T>
RefCounted<T>* RefCountedAdopt(T* body) {
  try {
    return new RefCounted<T>(body, false);
  } catch (...) {
    delete body;
    throw;
  }
}

// Makes `target` refer to what `source` refers to. This is the one routine behind every copy and
// assignment of a handle. `target` is deleted first, so its reference goes even when making the new
// wrapper throws; it is null then.
template <class T>
void RefCountedImplCopy(RefCounted<T>*& target, const RefCounted<T>* source) {
  if (target == source) return;
  if (target != nullptr) {
    delete target;
    target = nullptr;
  }
  if (source == nullptr) return;
  target = new RefCounted<T>(source->body(), source->body() != nullptr);
}

// General handle over a body of type `T`, used for rows and configuration objects.
template <class T>
class Ref {
 public:
  // No wrapper.
  Ref() = default;
  // Takes over the caller's reference to the new body `body`, which may be null, also when it
  // throws std::bad_alloc.
  explicit Ref(T* body) : m_wrapper(RefCountedAdopt(body)) {}
  Ref(const Ref& other) { RefCountedImplCopy(m_wrapper, other.m_wrapper); }
  // Takes over the wrapper of `other`, which has none afterwards.
  Ref(Ref&& other) noexcept : m_wrapper(std::exchange(other.m_wrapper, nullptr)) {}
  Ref& operator=(const Ref& other) {
    if (this != &other) RefCountedImplCopy(m_wrapper, other.m_wrapper);
    return *this;
  }
  virtual ~Ref() {
    delete m_wrapper;
    m_wrapper = nullptr;
  }

  // The body, which may be null. Throws Exception, code 1, when the handle has no wrapper.
  T* operator->() const {
    if (m_wrapper == nullptr) throw Exception("operator->", 1, "TslRefcounted", 359);
    return m_wrapper->body();
  }
  // As operator->. Deliberate: a pointer, because the body may be null and a reference may not.
  // Pinned by Ref.CopyingAHandleWithANullBodyDoesNotThrow.
  T* operator*() const {
    if (m_wrapper == nullptr) throw Exception("operator*", 1, "TslRefcounted", 386);
    return m_wrapper->body();
  }

  // True when the handle has no wrapper or a wrapper without a body.
  [[nodiscard]] bool isNull() const noexcept {
    return m_wrapper == nullptr || m_wrapper->body() == nullptr;
  }

 private:
  RefCounted<T>* m_wrapper = nullptr;
};

}  // namespace Tessel

#endif
