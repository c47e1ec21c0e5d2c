// Mutex and Synchronized.
#include "base/Mutex.h"

namespace Tessel {

Mutex::Mutex() = default;

void Mutex::lock() {
  m_mutex.lock();
}

void Mutex::unlock() {
  m_mutex.unlock();
}

Synchronized::Synchronized(Mutex& mutex) : m_mutex(mutex) {
  m_mutex.lock();
}

Synchronized::~Synchronized() {
  m_mutex.unlock();
}

}  // namespace Tessel
