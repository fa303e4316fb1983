#pragma once

#include <pthread.h>
#include <sys/resource.h>

#include <cstddef>

namespace marbleway::testing {

/// Limits a resource of this process during its life.
class Shortage {
 public:
  Shortage(__rlimit_resource resource, rlim_t limit) : resource_(resource) {
    getrlimit(resource, &before_);
    const rlimit less{.rlim_cur = limit, .rlim_max = before_.rlim_max};
    setrlimit(resource, &less);
  }
  Shortage(const Shortage&) = delete;
  Shortage& operator=(const Shortage&) = delete;
  ~Shortage() { setrlimit(resource_, &before_); }

 private:
  __rlimit_resource resource_;
  rlimit before_{};
};

/// While it lives no thread can be started: none gets a stack so large.
class NoThreads {
 public:
  NoThreads() {
    pthread_attr_t tooLarge;
    pthread_getattr_default_np(&usual_);
    pthread_attr_init(&tooLarge);
    pthread_attr_setstacksize(&tooLarge, std::size_t{1} << (sizeof(std::size_t) * 8 - 1));
    pthread_setattr_default_np(&tooLarge);
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;
  ~NoThreads() { pthread_setattr_default_np(&usual_); }

 private:
  pthread_attr_t usual_{};
};

}  // namespace marbleway::testing
