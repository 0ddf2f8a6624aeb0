# 32-bit ARM Linux, hard float (ILP32: size_t, long and time_t are 32 bits).
#   cmake -S . -B build/cross-armhf \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
set(SF_CROSS_TRIPLE arm-linux-gnueabihf)
set(SF_CROSS_PROCESSOR arm)
set(SF_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross-common.cmake)
