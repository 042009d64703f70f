# Cross-build for the device class: 32-bit big-endian PowerPC Linux, with Debian's
# g++-powerpc-linux-gnu. Programs built here run on the workstation under qemu-ppc
# (Debian qemu-user), which CTest uses through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)

set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

set(KL_PPC_SYSROOT /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH ${KL_PPC_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc -L ${KL_PPC_SYSROOT})
