set(architecture armhf)
set(triplet arm-linux-gnueabihf)
set(emulator qemu-arm)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)  # no note about compilers before g++ 7
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
