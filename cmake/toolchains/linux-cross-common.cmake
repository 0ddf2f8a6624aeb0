# Shared part of the Debian multiarch cross toolchains. The including file
# sets SF_CROSS_TRIPLE (e.g. arm-linux-gnueabihf), SF_CROSS_PROCESSOR and
# SF_CROSS_QEMU (the qemu-user program that runs the target's binaries).
#
# Compilers: Debian's cross packages (g++-<triple>). Libraries: the
# target's multiarch packages (libcjson-dev:armhf, ...) in /usr/lib/<triple>;
# their headers are shared with the host in /usr/include. The toolchain's
# own C library lives in /usr/<triple>, which is also the root qemu uses to
# find the dynamic loader. Test programs, and the discovery of their test
# cases, run under qemu-user through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${SF_CROSS_PROCESSOR})
set(CMAKE_LIBRARY_ARCHITECTURE ${SF_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${SF_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${SF_CROSS_TRIPLE}-g++)

# The host's libraries must never satisfy a find_library of the target.
list(APPEND CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu
     /usr/lib/x86_64-linux-gnu/cmake /usr/lib/cmake)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# cJSON's header without the rest of the host's /usr/include, whose C
# library headers must not stand before the toolchain's own.
set(SF_CROSS_CJSON_INCLUDE ${CMAKE_BINARY_DIR}/target-include)
if(NOT EXISTS ${SF_CROSS_CJSON_INCLUDE}/cjson/cJSON.h AND EXISTS /usr/include/cjson/cJSON.h)
  file(MAKE_DIRECTORY ${SF_CROSS_CJSON_INCLUDE})
  file(CREATE_LINK /usr/include/cjson ${SF_CROSS_CJSON_INCLUDE}/cjson SYMBOLIC)
endif()
set(CJSON_INCLUDE_DIR ${SF_CROSS_CJSON_INCLUDE} CACHE PATH "cJSON headers of the target")

find_program(SF_QEMU_PROGRAM ${SF_CROSS_QEMU} REQUIRED)
# -L makes qemu take the dynamic loader from the toolchain's root; the
# loader must then also find the toolchain's libc, not the multiarch one
# (libc6:armhf, pulled in by libcjson-dev:armhf) that the host's loader
# cache names: the two are different builds of glibc, and the loader of
# one with the libc of the other crashes in the first pthread_create.
set(CMAKE_CROSSCOMPILING_EMULATOR ${SF_QEMU_PROGRAM} -L /usr/${SF_CROSS_TRIPLE}
    -E LD_LIBRARY_PATH=/usr/${SF_CROSS_TRIPLE}/lib)
