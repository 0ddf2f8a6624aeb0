# 64-bit ARM Linux (LP64; char is unsigned, as on 32-bit ARM).
#   cmake -S . -B build/cross-arm64 \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
set(SF_CROSS_TRIPLE aarch64-linux-gnu)
set(SF_CROSS_PROCESSOR aarch64)
set(SF_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross-common.cmake)
