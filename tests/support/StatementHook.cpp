// The stand-in for Query::execute(): a definition in the program goes before that of the platform's
// library. This source is compiled without access control, for the mutex in a Mutex.
#include "support/StatementHook.h"

#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "database/Query.h"

namespace Tessel {

namespace {

std::atomic<Testing::StatementHook*> s_hook{nullptr};
thread_local bool s_isInHook = false;

}  // namespace

namespace Testing {

StatementHook::StatementHook(Before before) : m_before(std::move(before)) {
  s_hook = this;
}

StatementHook::~StatementHook() {
  s_hook = nullptr;
}

void StatementHook::call(const std::string& statement) {
  if (s_isInHook) return;
  s_isInHook = true;
  try {
    m_before(statement);
  } catch (...) {
    s_isInHook = false;
    throw;
  }
  s_isInHook = false;
}

bool isFree(Mutex& mutex) {
  bool taken = false;
  std::thread([&] {
    taken = mutex.m_mutex.try_lock();
    if (taken) mutex.m_mutex.unlock();
  }).join();
  return taken;
}

bool becomesFree(Mutex& mutex) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!isFree(mutex)) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

}  // namespace Testing

void Database::Query::execute() {
  Testing::StatementHook* const hook = s_hook;
  if (hook != nullptr) hook->call(std::string(statement()));
  // In the Itanium C++ ABI a member function takes the object as its first argument.
  using Execute = void (*)(Query*);
  static const auto s_execute =
      reinterpret_cast<Execute>(dlsym(RTLD_NEXT, "_ZN6Tessel8Database5Query7executeEv"));
  s_execute(this);
}

}  // namespace Tessel
