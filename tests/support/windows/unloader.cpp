#include <windows.h>

#include <string>

// A process that unloads the library for C while a transfer is in flight, and ends:
// "unloader LIBRARY DIRECTORY URL EVENT". The event says that the request has arrived.
namespace {

template <class Function>
Function* find(HMODULE library, const char* name) {
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 5) return 2;
  SetErrorMode(SEM_NOGPFAULTERRORBOX);
  FreeLibrary(LoadLibraryA(arguments[1]));
  if (GetModuleHandleA(arguments[1]) != nullptr) return 3;  // no thread of it has run
  HMODULE library = LoadLibraryA(arguments[1]);
  const std::string configuration = R"({"documentsDirectory": ")" + std::string(arguments[2]) +
                                    R"(", "developmentURL": ")" + arguments[3] + R"("})";
  find<int(const char*)>(library, "marbleway_configure")(configuration.c_str());
  find<int(const char*, const char*)>(library, "marbleway_init_with_options")(
      "token", R"({"SDKEnvironment": 1})");
  auto* const trackEvent = find<int(const char*, const char*)>(library, "marbleway_track_event");
  WaitForSingleObject(OpenEventA(SYNCHRONIZE, FALSE, arguments[4]), 60'000);
  FreeLibrary(library);
  return trackEvent("after", nullptr);
}
