# The driver's sources: the same list for both images and the native build.
set(ZEPN_DRIVER_SOURCES
    driver/delivery/apps_state.cpp
    driver/delivery/commands.cpp
    driver/delivery/state_posting.cpp
    driver/delivery/states.cpp
    driver/entry/control_queue.cpp
    driver/entry/device.cpp
    driver/entry/driver.cpp
    driver/entry/files.cpp
    driver/entry/interfaces.cpp
    driver/entry/power.cpp
    driver/crash_dump/announcements.cpp
    driver/crash_dump/attach.cpp
    driver/crash_dump/descriptors.cpp
    driver/crash_dump/forwarding.cpp
    driver/registry/lookup.cpp
    driver/registry/registration.cpp
    driver/registry/removal.cpp
    driver/registry/subscriptions.cpp
    driver/trace/events.cpp
    driver/trace/messages.cpp
    driver/trace/report.cpp)

# The build date and time that the driver reports are its commit's, so that equal commits make equal images. The file is
# rewritten only when they change.
set(ZEPN_BUILD_STAMP ${CMAKE_BINARY_DIR}/build_stamp.rsp)
add_custom_target(build_stamp
    COMMAND ${CMAKE_SOURCE_DIR}/cmake/build_stamp.sh ${CMAKE_SOURCE_DIR}
            ${CMAKE_SOURCE_DIR}/cmake/build_stamp.rsp.in ${ZEPN_BUILD_STAMP}
    BYPRODUCTS ${ZEPN_BUILD_STAMP} VERBATIM)
set_source_files_properties(driver/entry/driver.cpp PROPERTIES
    COMPILE_OPTIONS "@build_stamp.rsp" OBJECT_DEPENDS ${ZEPN_BUILD_STAMP})
