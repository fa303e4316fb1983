# What the library needs of a Windows system, and how it is linked there.
set(system_libraries winhttp bcrypt ole32 shell32 user32 advapi32 ntdll uuid)
if(MINGW)
  list(APPEND system_libraries ssp)  # what guards stacks and sizes of buffers
endif()
# The same for pkg-config: modules, and what no module names.
set(system_modules "")
list(JOIN system_libraries " -l" system_static_libraries)
string(PREPEND system_static_libraries "-lstdc++ -lpthread -l")

set(MARBLEWAY_DESKTOP OFF)
set(has_link_time_optimization OFF)  # mingw-w64's g++ 12 fails on it
# Windows 10, and UTF-16 names throughout.
set(system_definitions _WIN32_WINNT=0x0A00 UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN)
# What names the frames of a call stack.
set(system_call_stack call_stack.cpp text.cpp)
