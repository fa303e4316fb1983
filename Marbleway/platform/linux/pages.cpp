#include "Marbleway/platform/pages.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace marbleway::platform {

void prefault(char* start, std::size_t size) noexcept {
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::uintptr_t ahead = -reinterpret_cast<std::uintptr_t>(start) % page;
  if (size < ahead + page) return;
  madvise(start + ahead, (size - ahead) / page * page, MADV_POPULATE_WRITE);  // from Linux 5.14 on
}

}  // namespace marbleway::platform
