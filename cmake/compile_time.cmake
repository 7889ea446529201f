# What keeps compiling short. Most of our sources are small beside the headers that they read, so each library or
# program is compiled as a few large translation units, and what nearly all of them include is compiled beforehand.
#
# -DZEPN_UNITE=OFF compiles each source by itself, which tools that look at single sources want.
option(ZEPN_UNITE "Compile several sources as one translation unit" ON)

# ccache, where it is installed: a second checkout, or a change taken back, compiles nothing anew. What ships is always
# compiled: it takes seconds, and no setting of a cache may reach it.
find_program(ZEPN_CCACHE ccache)
if(ZEPN_IMAGES)
    set(CMAKE_CXX_COMPILER_LAUNCHER "")
elseif(ZEPN_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER
        ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${ZEPN_CCACHE})
endif()

# zepn_unite(target [sources for each translation unit]): all of them, unless said.
function(zepn_unite target)
    set(size 0)
    if(ARGC GREATER 1)
        set(size ${ARGV1})
    endif()
    set_target_properties(${target} PROPERTIES UNITY_BUILD ${ZEPN_UNITE} UNITY_BUILD_BATCH_SIZE ${size})
endfunction()

# A precompiled header is part of what ccache looks up, so it must not carry the time of its making.
#
# zepn_precompile(target [more headers]): these, and what most of our sources include.
function(zepn_precompile target)
    cmake_path(GET CMAKE_CURRENT_FUNCTION_LIST_DIR PARENT_PATH root)  # also where the host is part of another project
    target_precompile_headers(${target} PRIVATE <algorithm> <array> <filesystem> <fstream> <functional> <map> <memory>
        <mutex> <optional> <set> <sstream> <string> <thread> <vector> ${ARGN}
        "${root}/host/machine.h" "${root}/host/tracing/decode.h")
    target_compile_options(${target} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
endfunction()

# zepn_precompiled(target other): the headers precompiled for another target, which is optimised as this one or, like
# this one, not at all.
function(zepn_precompiled target other)
    target_precompile_headers(${target} REUSE_FROM ${other})
    target_compile_options(${target} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
endfunction()
