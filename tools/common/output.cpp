#include "tools/common/output.h"

#include <cerrno>
#include <cstdio>

namespace tools {

int Output::overflow(int next) {
  if (!write()) return traits_type::eof();
  if (next != traits_type::eof()) sputc(static_cast<char>(next));
  return traits_type::not_eof(next);
}

bool Output::write() {
  const auto count = static_cast<std::size_t>(pptr() - pbase());
  setp(bytes_.data(), bytes_.data() + bytes_.size());
  errno = 0;
  if (error_ == 0 && (std::fwrite(pbase(), 1, count, stdout) < count || std::fflush(stdout) != 0)) {
    error_ = errno;
  }
  return error_ == 0;
}

}  // namespace tools
