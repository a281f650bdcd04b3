#pragma once
// The recursive mutex type of the host's threading layer. Two process-wide instances
// exist for hosts that serialise their own module loading; nothing in this library
// locks them.

#include <mutex>

namespace ZorSDK::Common::Threads::Detail {

class recursive_mutex {
public:
  void lock() { mutex.lock(); }
  bool try_lock() { return mutex.try_lock(); }
  void unlock() { mutex.unlock(); }

private:
  std::recursive_mutex mutex;
};

inline recursive_mutex loadMutex;
inline recursive_mutex registryMutex;

}  // namespace ZorSDK::Common::Threads::Detail
