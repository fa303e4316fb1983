# What the library needs of a Linux system, and how it is linked there.
find_package(CURL REQUIRED)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
set(system_libraries CURL::libcurl PkgConfig::UUID ${CMAKE_DL_LIBS})
# The same for pkg-config: modules, and what no module names.
set(system_modules "libcurl uuid")
set(system_static_libraries "-lstdc++ -lpthread -ldl")

set(system_link_options LINKER:-z,relro,-z,now)
set(system_shared_link_options LINKER:-z,nodelete)  # threads and exit handlers outlive a dlclose
if(BUILD_SHARED_LIBS)
  include(CheckIPOSupported)
  check_ipo_supported(RESULT has_link_time_optimization OUTPUT ignored LANGUAGES CXX)
  include(CheckLinkerFlag)
  check_linker_flag(CXX LINKER:-z,pack-relative-relocs packs_relative_relocations)
  if(packs_relative_relocations)
    list(APPEND system_shared_link_options LINKER:-z,pack-relative-relocs)
  endif()
endif()
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  set(system_hardening -fcf-protection)
endif()

pkg_check_modules(SYSTEMD IMPORTED_TARGET libsystemd)
set(has_systemd OFF)
if(SYSTEMD_FOUND AND PROJECT_IS_TOP_LEVEL)
  set(has_systemd ON)
endif()
option(MARBLEWAY_DESKTOP "Build the services of a Linux desktop" ${has_systemd})
# What names the frames of a call stack.
set(system_call_stack call_stack.cpp)
