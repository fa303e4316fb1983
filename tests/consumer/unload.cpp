// Loads the module and unloads it a few times: while the library's threads are at work, and after
// they have been shut down. Without the module it crashes.
#include <dlfcn.h>

#include <cstdlib>

template <class Function>
Function* find(void* handle, const char* name) {
  return reinterpret_cast<Function*>(dlsym(handle, name));
}

int main(int count, char** arguments) {
  if (count != 3) return EXIT_FAILURE;
  for (int i = 0; i < 20; ++i) {
    void* const handle = dlopen(arguments[1], RTLD_NOW);
    find<void(const char*)>(handle, "start")(arguments[2]);
    if (i % 2 == 0) find<void()>(handle, "end")();
    dlclose(handle);
  }
  return find<int()>(dlopen(arguments[1], RTLD_NOW), "finish")();
}
