# The generator of decoding files and image resources. It runs on the building machine, so the image builds make one for
# themselves.
add_library(trace_gen STATIC
    ${CMAKE_SOURCE_DIR}/tools/trace_gen/event_template.cpp
    ${CMAKE_SOURCE_DIR}/tools/trace_gen/resources.cpp
    ${CMAKE_SOURCE_DIR}/tools/trace_gen/sha256.cpp)
add_executable(zepn-trace-gen
    ${CMAKE_SOURCE_DIR}/tools/trace_gen/main.cpp ${CMAKE_SOURCE_DIR}/tools/trace_gen/reports_page.cpp)
target_include_directories(zepn-trace-gen SYSTEM PRIVATE ${CMAKE_SOURCE_DIR}/platform/include)
target_link_libraries(zepn-trace-gen PRIVATE trace_gen)
