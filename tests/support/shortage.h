#pragma once

#include <sys/resource.h>

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

}  // namespace marbleway::testing
