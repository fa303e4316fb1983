#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include "Marbleway/platform/call_stack.h"

// The C++ run-time of g++ and Clang has these functions, on Windows that of mingw-w64.
namespace marbleway::platform {

std::string demangled(const char* name) {
  struct Free {
    void operator()(char* text) const { std::free(text); }
  };
  int status = 0;
  const std::unique_ptr<char, Free> text(abi::__cxa_demangle(name, nullptr, nullptr, &status));
  return text ? text.get() : name;
}

const char* currentExceptionType() {
  const std::type_info* const type = abi::__cxa_current_exception_type();
  return type != nullptr ? type->name() : nullptr;
}

}  // namespace marbleway::platform
