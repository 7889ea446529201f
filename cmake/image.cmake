# Driver images for ARM64 and x64: <name>.sys with its PDB and link map, byte-identical for equal commits wherever it is
# built.
#
# No path of this machine may reach the outputs: names are relative, the compiler's command line is not recorded, and
# what the linker records of its folder is fixed.

set(CMAKE_CXX_FLAGS "")
set(CMAKE_CXX_FLAGS_RELEASE "")
# The memory routines must not become calls of themselves.
set_source_files_properties(platform/windows/memory.cpp PROPERTIES COMPILE_OPTIONS -fno-builtin)

# What a machine's images lie in and are linked with.
foreach(machine ${ZEPN_MACHINES})
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/${machine})
    foreach(module ntoskrnl wdfldr)
        add_custom_command(OUTPUT ${machine}/${module}.lib
            COMMAND llvm-dlltool-19 -m ${${machine}_DLLTOOL} -d ${CMAKE_SOURCE_DIR}/platform/windows/${module}.def
                    -l ${machine}/${module}.lib
            DEPENDS ${CMAKE_SOURCE_DIR}/platform/windows/${module}.def VERBATIM)
    endforeach()
    add_custom_target(import_libraries_${machine} DEPENDS ${machine}/ntoskrnl.lib ${machine}/wdfldr.lib)
endforeach()

include(cmake/trace_gen.cmake)
# The driver's resources: what makes its reports readable on Windows, and its version with the commit that it is built
# from. The generator by its path: CMake takes a target of a cross build for one that cannot run here.
add_custom_command(OUTPUT zepn_events.rc
    COMMAND ${CMAKE_BINARY_DIR}/zepn-trace-gen --resources .
    DEPENDS zepn-trace-gen VERBATIM)
add_custom_target(version_stamp
    COMMAND ${CMAKE_SOURCE_DIR}/cmake/build_stamp.sh ${CMAKE_SOURCE_DIR}
            ${CMAKE_SOURCE_DIR}/driver/package/zepn_version.h.in zepn_version.h
    BYPRODUCTS zepn_version.h VERBATIM)
# By its relative path: the resource compiler takes a path that starts with '/c' for an option.
file(RELATIVE_PATH resource_script ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR}/driver/package/zepn.rc)
add_custom_command(OUTPUT zepn.res
    COMMAND llvm-rc-19 /I . /FO zepn.res ${resource_script}
    DEPENDS zepn_events.rc zepn_version.h ${CMAKE_SOURCE_DIR}/driver/package/zepn.rc VERBATIM)
add_custom_target(resources DEPENDS zepn.res)
add_dependencies(resources version_stamp)

# What decodes the reports elsewhere, and the pages about them: the host's tools and all tests read these.
set(ZEPN_DECODING_FILES ${CMAKE_SOURCE_DIR}/out/manifest)
add_custom_command(OUTPUT ${ZEPN_DECODING_FILES}/zepn.man
    COMMAND ${CMAKE_BINARY_DIR}/zepn-trace-gen ${ZEPN_DECODING_FILES} ${CMAKE_SOURCE_DIR}/out/pages
    DEPENDS zepn-trace-gen VERBATIM)
add_custom_target(decoding_files ALL DEPENDS ${ZEPN_DECODING_FILES}/zepn.man)

# zepn_add_image(name source...): the targets <name>_<machine> make out/<machine>/<name>.sys, .pdb and .map. Sources are
# relative to the root; what the WDK would link is added, unless ${name}_PLATFORM_SOURCES says what else is, with the
# import library ${name}_KERNEL_LIBRARY; and the resources that ${name}_RESOURCES names.
function(zepn_add_image name)
    foreach(machine ${ZEPN_MACHINES})
        zepn_add_image_for(${machine} ${name} ${ARGN})
    endforeach()
endfunction()

function(zepn_add_image_for machine name)
    if(NOT DEFINED ${name}_PLATFORM_SOURCES)
        set(${name}_PLATFORM_SOURCES ${ZEPN_PLATFORM_SOURCES})
        set(${name}_KERNEL_LIBRARY ntoskrnl.lib)
    endif()
    set(sources ${ARGN} ${${name}_PLATFORM_SOURCES} ${ZEPN_IMAGE_SOURCES})
    set(objects ${name}_${machine}_objects)
    add_library(${objects} OBJECT EXCLUDE_FROM_ALL ${sources})
    target_include_directories(${objects} PRIVATE platform/include)
    target_compile_options(${objects} PRIVATE
        --target=${${machine}_TRIPLE} ${ZEPN_IMAGE_COMPILE_OPTIONS} ${ZEPN_CPP_OPTIONS}
        -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
        ${ZEPN_DRIVER_WARNINGS})

    # Relative to the machine's folder, where the link runs.
    list(TRANSFORM sources PREPEND ../CMakeFiles/${objects}.dir/ OUTPUT_VARIABLE object_names)
    list(TRANSFORM object_names APPEND ${CMAKE_CXX_OUTPUT_EXTENSION})
    list(TRANSFORM ${name}_RESOURCES PREPEND ../ OUTPUT_VARIABLE resources)
    set(product ${machine}/${name})
    set(out ${CMAKE_SOURCE_DIR}/out/${machine})
    add_custom_command(OUTPUT ${product}.sys ${product}.pdb ${product}.map
        COMMAND lld-link-19 ${ZEPN_IMAGE_LINK_OPTIONS} /machine:${machine} ${${machine}_LINK_OPTIONS}
                /pdb:${name}.pdb /lldmap:${name}.map /out:${name}.sys
                ${object_names} ${resources} ${${name}_KERNEL_LIBRARY} wdfldr.lib
        DEPENDS ${objects} $<TARGET_OBJECTS:${objects}> import_libraries_${machine}
                ${machine}/${${name}_KERNEL_LIBRARY} ${machine}/wdfldr.lib resources ${${name}_RESOURCES}
        WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/${machine} VERBATIM)
    add_custom_target(${name}_${machine}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
        COMMAND ${CMAKE_COMMAND} -E copy_if_different ${product}.sys ${product}.pdb ${product}.map ${out}
        DEPENDS ${product}.sys ${product}.pdb ${product}.map VERBATIM)
endfunction()

set(zepn_RESOURCES zepn.res)
zepn_add_image(zepn ${ZEPN_DRIVER_SOURCES})
# What the benchmark compares the driver with.
zepn_add_image(minimal bench/minimal_driver/minimal_driver.cpp)
add_custom_target(all_images ALL)
foreach(machine ${ZEPN_MACHINES})
    add_dependencies(zepn_${machine}_objects build_stamp)
    add_dependencies(all_images zepn_${machine})
endforeach()

# Built on demand.
foreach(sample ${ZEPN_SAMPLES})
    zepn_add_image(${sample} ${${sample}_SOURCES})
endforeach()
foreach(machine ${ZEPN_MACHINES})
    add_custom_target(samples_${machine})
    foreach(sample ${ZEPN_SAMPLES})
        add_dependencies(samples_${machine} ${sample}_${machine})
    endforeach()
endforeach()

# Two of a test's, linked as a kit links: with an entry stub of its kind, and the kernel's C library instead of its own.
# The second needs what the host does not play.
foreach(machine ${ZEPN_MACHINES})
    set(exports ${CMAKE_SOURCE_DIR}/tests/image/wdk_linked/ntoskrnl.def)
    add_custom_command(OUTPUT ${machine}/wdk_linked_kernel.lib
        COMMAND llvm-dlltool-19 -m ${${machine}_DLLTOOL} -d ${exports} -l ${machine}/wdk_linked_kernel.lib
        DEPENDS ${exports} VERBATIM)
endforeach()
foreach(image wdk_linked needs_functions)
    set(${image}_PLATFORM_SOURCES tests/image/wdk_linked/entry.cpp)
    set(${image}_KERNEL_LIBRARY wdk_linked_kernel.lib)
endforeach()
zepn_add_image(wdk_linked tests/image/wdk_linked/driver.cpp)
zepn_add_image(needs_functions tests/image/wdk_linked/needs_functions.cpp)
set_source_files_properties(tests/image/wdk_linked/driver.cpp PROPERTIES COMPILE_OPTIONS -Wno-frame-larger-than)
add_custom_target(wdk_linked DEPENDS wdk_linked_arm64 wdk_linked_x64 needs_functions_arm64 needs_functions_x64)
