# The bound as an image, compiled and linked as the driver is. Not built unless asked for.
set(bound_sources bench/bound/bound.cpp ${ZEPN_PLATFORM_SOURCES} platform/windows/guard.cpp)
add_library(bound_objects OBJECT EXCLUDE_FROM_ALL ${bound_sources})
target_include_directories(bound_objects PRIVATE platform/include)
get_target_property(driver_options zepn_objects COMPILE_OPTIONS)
target_compile_options(bound_objects PRIVATE ${driver_options})
set(bound_names ${bound_sources})
list(TRANSFORM bound_names PREPEND CMakeFiles/bound_objects.dir/)
list(TRANSFORM bound_names APPEND ${CMAKE_CXX_OUTPUT_EXTENSION})
add_custom_command(OUTPUT bound.sys
    COMMAND lld-link-19 /nologo /driver /driver:wdm /subsystem:native,10.0 /machine:${ZEPN_IMAGE_MACHINE}
            /entry:FxDriverEntry /nodefaultlib /opt:ref /opt:noicf /guard:cf /release /Brepro
            /out:bound.sys ${bound_names} ntoskrnl.lib wdfldr.lib
    DEPENDS bound_objects $<TARGET_OBJECTS:bound_objects> ntoskrnl.lib wdfldr.lib
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR} VERBATIM)
add_custom_target(bound
    COMMAND ${CMAKE_COMMAND} -E make_directory ${ZEPN_OUT}
    COMMAND ${CMAKE_COMMAND} -E copy_if_different bound.sys ${ZEPN_OUT}
    DEPENDS bound.sys VERBATIM)
