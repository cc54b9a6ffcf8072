# Cross build for the gateway's CPU (MIPS32 little-endian, Linux, glibc)
# with Debian's cross compiler and Debian's multiarch mipsel packages of
# cJSON, OpenSSL and GoogleTest (dpkg --add-architecture mipsel).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

set(QDQ_CROSS_TRIPLET mipsel-linux-gnu)
set(CMAKE_C_COMPILER ${QDQ_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QDQ_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${QDQ_CROSS_TRIPLET})

# The multiarch libraries live under /usr/lib/mipsel-linux-gnu, outside the
# cross compiler's own sysroot, so both roots are searched. Host programs
# (python3, openssl, nm) still come from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${QDQ_CROSS_TRIPLET} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(PKG_CONFIG_EXECUTABLE ${QDQ_CROSS_TRIPLET}-pkg-config CACHE FILEPATH "pkg-config for the target")

# Test programs run under user-mode emulation. No -L: the emulated loader
# from libc6:mipsel must find its own C library in /lib/mipsel-linux-gnu; a
# second glibc copy from the cross sysroot makes threaded programs crash.
find_program(QDQ_QEMU_MIPSEL qemu-mipsel)
if(QDQ_QEMU_MIPSEL)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QDQ_QEMU_MIPSEL})
endif()
