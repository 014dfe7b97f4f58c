# Builds for AArch64 with Debian's cross compiler; what is built runs here through qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Header-only packages are the same for every machine and stand outside the root. Packages with compiled libraries are
# still told apart: CMake looks for them below lib/aarch64-linux-gnu.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# An emulated process cannot start another one by itself: whoever starts a program puts these words before it.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${CMAKE_FIND_ROOT_PATH})
