# What both cross toolchains share. Set ZEPN_IMAGE_MACHINE, ZEPN_TARGET_TRIPLE and ZEPN_DLLTOOL_MACHINE first.
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_CXX_COMPILER clang++-19)  # every target option is ours, so CMake need not know the target

