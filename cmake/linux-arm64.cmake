# Host, tools and tests for AArch64 Linux, on a machine of another kind; they run under Debian's user-mode emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER clang-19)  # for clients in C
set(CMAKE_C_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)
# A processor without the extensions that nothing here uses: the emulator looks at the state of each at every return.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -cpu neoverse-n1 -L /usr/aarch64-linux-gnu)
# Fewer calls by address, each of which the emulator must look up.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libstdc++ -static-libgcc -no-pie")
