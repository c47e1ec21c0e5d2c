// The containers that a cache cannot do without, which hits are measured against.
#ifndef TSL_BENCH_BARECACHE_H
#define TSL_BENCH_BARECACHE_H

#include <list>
#include <map>
#include <utility>

#include <boost/thread/lock_types.hpp>
#include <boost/thread/shared_mutex.hpp>

namespace Tessel::Bench {

// Map, list and lock. `find`, which needs a key that is there, may be called by any thread.
template <class Key, class Value>
struct BareCache {
  using Recent = std::list<std::pair<Key, Value>>;

  void add(const Key& key, const Value& value) {
    recent.emplace_front(key, value);
    index.emplace(key, recent.begin());
  }

  typename Recent::iterator find(const Key& key) {
    const boost::unique_lock<boost::shared_mutex> lock(mutex);
    recent.splice(recent.begin(), recent, index.find(key)->second);
    return recent.begin();
  }

  boost::shared_mutex mutex;
  Recent recent;
  std::map<Key, typename Recent::iterator> index;
};

}  // namespace Tessel::Bench

#endif
