# What whoever links the host needs beside it: the target host_use. Projects of client drivers may link a host that was
# compiled elsewhere (cmake/zepn-config.cmake).
cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH root)
find_package(Threads REQUIRED)
include(${root}/cmake/pugixml.cmake)
add_library(host_use INTERFACE)
target_compile_features(host_use INTERFACE cxx_std_20)
target_compile_options(host_use INTERFACE -fsigned-char)
target_include_directories(host_use INTERFACE ${root})
# The platform's headers are its own to warn about; our code that includes them is not.
target_include_directories(host_use SYSTEM INTERFACE ${root}/platform/include)
target_link_libraries(host_use INTERFACE Threads::Threads ${CMAKE_DL_LIBS} xml)
# Native drivers find the platform's functions in the executable that hosts them.
target_link_options(host_use INTERFACE -rdynamic)
