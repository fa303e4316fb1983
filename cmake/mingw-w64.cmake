# Programs for 64-bit Windows, made by Debian's mingw-w64 with what scripts/setup-windows has built,
# and run by Wine. They need no file beside them: the compiler's run-time libraries are linked in.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT -static)
endforeach()

get_filename_component(windows_prefix ${CMAKE_CURRENT_LIST_DIR}/../build-windows-deps ABSOLUTE)
list(APPEND CMAKE_FIND_ROOT_PATH ${windows_prefix} /usr/x86_64-w64-mingw32)
list(APPEND CMAKE_PREFIX_PATH ${windows_prefix})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
set(ENV{PKG_CONFIG_LIBDIR} ${windows_prefix}/lib/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR
  env WINEDEBUG=-all WINEDLLOVERRIDES=winedbg.exe=d WINEPREFIX=${CMAKE_BINARY_DIR}/wine DISPLAY= /usr/lib/wine/wine64)
