#include <unistd.h>

#include <string>

#include "Marbleway/platform/linux/files.h"
#include "Marbleway/platform/linux/services.h"
#include "Marbleway/platform/write_guard.h"

namespace marbleway::platform {
namespace {

class StandardError final : public Console {
 public:
  void writeLine(std::string_view line) override {
    // One block, so that lines of several threads and processes stay whole.
    std::string whole;
    whole.reserve(line.size() + 1);
    whole.append(line).push_back('\n');

    const WriteGuard guard(WriteGuard::Into::pipe);
    writeAll(STDERR_FILENO, whole);
  }
};

}  // namespace

std::shared_ptr<Console> makeStandardError() { return std::make_shared<StandardError>(); }

}  // namespace marbleway::platform
