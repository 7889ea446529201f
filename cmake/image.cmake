# The driver image: zepn.sys with its PDB and link map, byte-identical for equal commits wherever it is built.
#
# No path of this machine may reach the outputs: names are relative, the compiler's command line is not recorded, and
# what the linker records of its folder is fixed.

set(CMAKE_CXX_FLAGS "")
set(CMAKE_CXX_FLAGS_RELEASE "")
add_library(zepn_objects OBJECT ${ZEPN_DRIVER_SOURCES} ${ZEPN_PLATFORM_SOURCES} platform/windows/guard.cpp)
add_dependencies(zepn_objects build_stamp)
target_include_directories(zepn_objects PRIVATE platform/include)
target_compile_options(zepn_objects PRIVATE
    --target=${ZEPN_TARGET_TRIPLE} -O2 -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics
    -fasynchronous-unwind-tables  # -ffreestanding drops the tables that the kernel unwinds by
    -g -gcodeview -gno-codeview-command-line
    -ffile-compilation-dir=. -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
    -Xclang -cfguard
    ${ZEPN_DRIVER_WARNINGS})
# The memory routines must not become calls of themselves.
set_source_files_properties(platform/windows/memory.cpp PROPERTIES COMPILE_OPTIONS -fno-builtin)

foreach(module ntoskrnl wdfldr)
    add_custom_command(OUTPUT ${module}.lib
        COMMAND llvm-dlltool-19 -m ${ZEPN_DLLTOOL_MACHINE} -d ${CMAKE_SOURCE_DIR}/platform/windows/${module}.def
                -l ${module}.lib
        DEPENDS ${CMAKE_SOURCE_DIR}/platform/windows/${module}.def VERBATIM)
endforeach()

include(cmake/trace_gen.cmake)
# By its path: CMake takes a target of a cross build for one that cannot run here.
add_custom_command(OUTPUT zepn.res
    COMMAND ${CMAKE_BINARY_DIR}/zepn-trace-gen --resources zepn.res ${PROJECT_VERSION}
    DEPENDS zepn-trace-gen VERBATIM)

# Relative to the build folder, where the link runs.
set(object_names ${ZEPN_DRIVER_SOURCES} ${ZEPN_PLATFORM_SOURCES} platform/windows/guard.cpp)
list(TRANSFORM object_names PREPEND CMakeFiles/zepn_objects.dir/)
list(TRANSFORM object_names APPEND ${CMAKE_CXX_OUTPUT_EXTENSION})

add_custom_command(OUTPUT zepn.sys zepn.pdb zepn.map
    COMMAND lld-link-19 /nologo /driver /driver:wdm /subsystem:native,10.0 /machine:${ZEPN_IMAGE_MACHINE}
            /entry:FxDriverEntry /nodefaultlib /opt:ref /opt:noicf /guard:cf /release /Brepro
            /debug /pdb:zepn.pdb /pdbaltpath:%_PDB% /pdbsourcepath:C:\\src /lldmap:zepn.map /out:zepn.sys
            ${object_names} zepn.res ntoskrnl.lib wdfldr.lib
    DEPENDS zepn_objects $<TARGET_OBJECTS:zepn_objects> zepn.res ntoskrnl.lib wdfldr.lib
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR} VERBATIM)

set(ZEPN_OUT ${CMAKE_SOURCE_DIR}/out/${ZEPN_IMAGE_MACHINE})
add_custom_target(image ALL
    COMMAND ${CMAKE_COMMAND} -E make_directory ${ZEPN_OUT}
    COMMAND ${CMAKE_COMMAND} -E copy_if_different zepn.sys zepn.pdb zepn.map ${ZEPN_OUT}
    DEPENDS zepn.sys zepn.pdb zepn.map VERBATIM)
