// Loads the module and unloads it a few times: while the library's threads are at work, and after
// they have been shut down.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace {

void* load(const char* module) {
  void* const handle = dlopen(module, RTLD_NOW);
  if (handle != nullptr) return handle;
  (void)std::fprintf(stderr, "%s\n", dlerror());
  std::exit(EXIT_FAILURE);
}

template <class Function>
Function* find(void* handle, const char* name) {
  return reinterpret_cast<Function*>(dlsym(handle, name));
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return EXIT_FAILURE;
  for (int i = 0; i < 20; ++i) {
    void* const handle = load(arguments[1]);
    find<void(const char*)>(handle, "start")(arguments[2]);
    if (i % 2 == 0) find<void()>(handle, "end")();
    dlclose(handle);
  }
  return find<int()>(load(arguments[1]), "finish")();
}
