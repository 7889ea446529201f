# The generator of decoding files and image resources. It runs on the building machine; the image build makes it, and
# the tests use its parts.
add_library(trace_gen STATIC
    ${CMAKE_SOURCE_DIR}/tools/trace_gen/event_template.cpp
    ${CMAKE_SOURCE_DIR}/tools/trace_gen/sha256.cpp)
zepn_unite(trace_gen)
# Elsewhere known to clang-tidy and not built.
add_executable(zepn-trace-gen EXCLUDE_FROM_ALL
    ${CMAKE_SOURCE_DIR}/tools/trace_gen/main.cpp ${CMAKE_SOURCE_DIR}/tools/trace_gen/reports_page.cpp)
zepn_unite(zepn-trace-gen)
target_include_directories(zepn-trace-gen SYSTEM PRIVATE ${CMAKE_SOURCE_DIR}/platform/include)
target_link_libraries(zepn-trace-gen PRIVATE trace_gen)
