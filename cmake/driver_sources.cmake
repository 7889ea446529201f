# The driver's sources: the same list for both images and the native build.
set(ZEPN_DRIVER_SOURCES
    delivery/apps_state.cpp
    delivery/commands.cpp
    delivery/state_posting.cpp
    delivery/states.cpp
    driver/device.cpp
    driver/driver.cpp
    driver/files.cpp
    driver/interfaces.cpp
    driver/power.cpp
    dump/announcements.cpp
    dump/attach.cpp
    dump/descriptors.cpp
    dump/forwarding.cpp
    registry/lookup.cpp
    registry/registration.cpp
    registry/removal.cpp
    registry/subscriptions.cpp
    trace/events.cpp
    trace/messages.cpp
    trace/report.cpp)

# What the WDK would link: the framework's entry stub, and memory routines.
set(ZEPN_PLATFORM_SOURCES platform/windows/framework_entry.cpp platform/windows/memory.cpp)

# The build date and time that the driver reports are its commit's, so that equal commits make equal images. The file is
# rewritten only when they change.
set(ZEPN_BUILD_STAMP ${CMAKE_BINARY_DIR}/build_stamp.rsp)
add_custom_target(build_stamp
    COMMAND ${CMAKE_SOURCE_DIR}/cmake/build_stamp.sh ${CMAKE_SOURCE_DIR}
            ${CMAKE_SOURCE_DIR}/cmake/build_stamp.rsp.in ${ZEPN_BUILD_STAMP}
    BYPRODUCTS ${ZEPN_BUILD_STAMP} VERBATIM)
set_source_files_properties(driver/driver.cpp PROPERTIES
    COMPILE_OPTIONS "@build_stamp.rsp" OBJECT_DEPENDS ${ZEPN_BUILD_STAMP})
