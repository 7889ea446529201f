# The samples: driver images beside the Notifier's own, from the same platform sources. Paths from the root.
set(ZEPN_SAMPLES zepn_client zepn_crashdump zepn_probe)
set(zepn_client_SOURCES samples/client/client.cpp samples/common/notifier_link.cpp)
set(zepn_crashdump_SOURCES samples/crashdump/crashdump.cpp samples/common/notifier_link.cpp)
file(GLOB zepn_probe_SOURCES CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR} samples/probe/*.cpp)
