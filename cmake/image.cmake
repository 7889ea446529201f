# Driver images: <name>.sys with its PDB and link map, byte-identical for equal commits wherever it is built.
#
# No path of this machine may reach the outputs: names are relative, the compiler's command line is not recorded, and
# what the linker records of its folder is fixed.

set(CMAKE_CXX_FLAGS "")
set(CMAKE_CXX_FLAGS_RELEASE "")
# The memory routines must not become calls of themselves.
set_source_files_properties(platform/windows/memory.cpp PROPERTIES COMPILE_OPTIONS -fno-builtin)

foreach(module ntoskrnl wdfldr)
    add_custom_command(OUTPUT ${module}.lib
        COMMAND llvm-dlltool-19 -m ${ZEPN_DLLTOOL_MACHINE} -d ${CMAKE_SOURCE_DIR}/platform/windows/${module}.def
                -l ${module}.lib
        DEPENDS ${CMAKE_SOURCE_DIR}/platform/windows/${module}.def VERBATIM)
endforeach()
add_custom_target(import_libraries DEPENDS ntoskrnl.lib wdfldr.lib)

include(cmake/trace_gen.cmake)
# What makes the driver's reports readable on Windows. By its path: CMake takes a target of a cross build for one that
# cannot run here.
add_custom_command(OUTPUT zepn.res
    COMMAND ${CMAKE_BINARY_DIR}/zepn-trace-gen --resources zepn.res ${PROJECT_VERSION}
    DEPENDS zepn-trace-gen VERBATIM)
add_custom_target(resources DEPENDS zepn.res)

set(ZEPN_OUT ${CMAKE_SOURCE_DIR}/out/${ZEPN_IMAGE_MACHINE})

# zepn_add_image(target name source...): <target> makes out/<machine>/<name>.sys, .pdb and .map. Sources are relative to
# the root; what the WDK would link is added, and the resources that ${name}_RESOURCES names.
function(zepn_add_image target name)
    set(sources ${ARGN} ${ZEPN_PLATFORM_SOURCES} platform/windows/guard.cpp)
    add_library(${name}_objects OBJECT EXCLUDE_FROM_ALL ${sources})
    target_include_directories(${name}_objects PRIVATE platform/include)
    target_compile_options(${name}_objects PRIVATE
        # Not -ffreestanding: small copies and comparisons are then calls instead of a few instructions.
        --target=${ZEPN_TARGET_TRIPLE} -O2 -fno-exceptions -fno-rtti -fno-threadsafe-statics
        -fasynchronous-unwind-tables  # the kernel unwinds by them
        -g -gcodeview -gno-codeview-command-line
        -ffile-compilation-dir=. -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
        -Xclang -cfguard
        ${ZEPN_DRIVER_WARNINGS})

    # Relative to the build folder, where the link runs.
    list(TRANSFORM sources PREPEND CMakeFiles/${name}_objects.dir/ OUTPUT_VARIABLE object_names)
    list(TRANSFORM object_names APPEND ${CMAKE_CXX_OUTPUT_EXTENSION})
    add_custom_command(OUTPUT ${name}.sys ${name}.pdb ${name}.map
        COMMAND lld-link-19 /nologo /driver /driver:wdm /subsystem:native,10.0 /machine:${ZEPN_IMAGE_MACHINE}
                /entry:FxDriverEntry /nodefaultlib /opt:ref /opt:noicf /guard:cf /release /Brepro
                /debug /pdb:${name}.pdb /pdbaltpath:%_PDB% /pdbsourcepath:C:\\src /lldmap:${name}.map /out:${name}.sys
                ${object_names} ${${name}_RESOURCES} ntoskrnl.lib wdfldr.lib
        DEPENDS ${name}_objects $<TARGET_OBJECTS:${name}_objects> import_libraries ntoskrnl.lib wdfldr.lib
                resources ${${name}_RESOURCES}
        WORKING_DIRECTORY ${CMAKE_BINARY_DIR} VERBATIM)
    add_custom_target(${target}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${ZEPN_OUT}
        COMMAND ${CMAKE_COMMAND} -E copy_if_different ${name}.sys ${name}.pdb ${name}.map ${ZEPN_OUT}
        DEPENDS ${name}.sys ${name}.pdb ${name}.map VERBATIM)
endfunction()

add_custom_target(all_images ALL)
set(zepn_RESOURCES zepn.res)
zepn_add_image(image zepn ${ZEPN_DRIVER_SOURCES})
add_dependencies(zepn_objects build_stamp)
add_dependencies(all_images image)
# What the benchmark compares the driver with; built on demand.
zepn_add_image(bound bound bench/bound/bound.cpp)

# Built on demand.
add_custom_target(samples)
foreach(sample ${ZEPN_SAMPLES})
    zepn_add_image(${sample}_image ${sample} ${${sample}_SOURCES})
    add_dependencies(samples ${sample}_image)
endforeach()
