# The toolchain of the driver images, for ARM64 and x64 alike: every target option is ours (image.cmake), so CMake need
# not know the target.
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_CXX_COMPILER clang++-19)
set(ZEPN_IMAGES ON)
