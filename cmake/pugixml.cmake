# The library that reads the event manifest: the target xml. A cross build needs it for the other machine: Debian has
# it, in a package of that architecture, which is unpacked into the build folder, so that this machine's own package
# system need not learn of a second architecture.
if(CMAKE_CROSSCOMPILING)
    set(package ${CMAKE_BINARY_DIR}/packages)
    set(library ${package}/usr/lib/aarch64-linux-gnu/libpugixml.a)
    if(NOT EXISTS ${library})
        execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/unpack_package.sh libpugixml-dev arm64 ${package}
            COMMAND_ERROR_IS_FATAL ANY)
    endif()
    add_library(xml STATIC IMPORTED)
    set_target_properties(xml PROPERTIES
        IMPORTED_LOCATION ${library} INTERFACE_INCLUDE_DIRECTORIES ${package}/usr/include)
else()
    find_package(pugixml REQUIRED)
    add_library(xml INTERFACE IMPORTED)
    target_link_libraries(xml INTERFACE pugixml::static)
endif()
