# The programs and libraries that only tests and ./zepn fuzz use. The programs lie with the other tools.
find_package(nlohmann_json REQUIRED)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tools)

# The kit's part that needs no test framework.
add_library(kit STATIC kit/callback_lines.cpp kit/crash_dump_driver.cpp kit/driver_harness.cpp kit/operation.cpp
    kit/peer.cpp)
target_link_libraries(kit PUBLIC host PRIVATE nlohmann_json::nlohmann_json)
if(CMAKE_CROSSCOMPILING)
    target_compile_definitions(kit PUBLIC ZEPN_EMULATED)
endif()
zepn_unite(kit)
target_compile_options(kit PRIVATE ${ZEPN_WITHOUT_UNDEFINED})
zepn_precompiled(kit host)

file(GLOB model_sources CONFIGURE_DEPENDS model/*.cpp)
list(FILTER model_sources EXCLUDE REGEX "model/(main|libfuzzer|.*_test).cpp")
add_library(model STATIC ${model_sources})
zepn_unite(model)
target_compile_options(model PRIVATE ${ZEPN_RUNS_ONCE} ${ZEPN_WITHOUT_UNDEFINED})
zepn_precompiled(model command_line)
target_link_libraries(model PUBLIC kit PRIVATE nlohmann_json::nlohmann_json)
zepn_add_program(zepn-fuzz model/main.cpp model)
target_compile_definitions(zepn-fuzz PRIVATE
    ZEPN_ROOT="${CMAKE_SOURCE_DIR}" ZEPN_NATIVE_DRIVER="$<TARGET_FILE:zepn_native>")

file(GLOB file_fuzzing_sources CONFIGURE_DEPENDS fuzz/*.cpp)
list(FILTER file_fuzzing_sources EXCLUDE REGEX "fuzz/(main|.*_test).cpp")
add_library(file_fuzzing STATIC ${file_fuzzing_sources})
zepn_unite(file_fuzzing)
target_compile_options(file_fuzzing PRIVATE ${ZEPN_RUNS_ONCE} ${ZEPN_WITHOUT_UNDEFINED})
zepn_precompiled(file_fuzzing command_line)
target_link_libraries(file_fuzzing PUBLIC model play image_check)
target_compile_definitions(file_fuzzing PRIVATE
    ZEPN_ROOT="${CMAKE_SOURCE_DIR}" ZEPN_NATIVE_DRIVER="$<TARGET_FILE:zepn_native>")
zepn_add_program(zepn-fuzz-files fuzz/main.cpp file_fuzzing)
add_dependencies(zepn-fuzz-files zepn_native)

if(ZEPN_SANITIZE MATCHES "fuzzer|address")
    add_executable(zepn-libfuzzer model/libfuzzer.cpp)
    target_link_libraries(zepn-libfuzzer PRIVATE model)
    target_link_options(zepn-libfuzzer PRIVATE -fsanitize=fuzzer)
    target_compile_definitions(zepn-libfuzzer PRIVATE ZEPN_NATIVE_DRIVER="$<TARGET_FILE:zepn_native>")
    add_dependencies(zepn-libfuzzer zepn_native)
endif()

file(GLOB mutation_sources CONFIGURE_DEPENDS mutation/*.cpp)
list(FILTER mutation_sources EXCLUDE REGEX "mutation/(main|.*_test).cpp")
add_library(mutation STATIC ${mutation_sources})
zepn_unite(mutation)
zepn_precompiled(mutation host)
target_link_libraries(mutation PRIVATE nlohmann_json::nlohmann_json)
zepn_add_program(zepn-mutants mutation/main.cpp mutation)
target_compile_definitions(zepn-mutants PRIVATE
    ZEPN_ROOT="${CMAKE_SOURCE_DIR}" ZEPN_BUILD="${CMAKE_BINARY_DIR}")

add_executable(zepn-coverage coverage/main.cpp)
target_link_libraries(zepn-coverage PRIVATE nlohmann_json::nlohmann_json)

target_compile_options(zepn-coverage PRIVATE ${ZEPN_RUNS_ONCE})

# It holds the interfaces' identifiers, so it includes what makes them before all else.
set_source_files_properties(kit/driver_harness.cpp PROPERTIES
    SKIP_UNITY_BUILD_INCLUSION ON SKIP_PRECOMPILE_HEADERS ON)
unset(CMAKE_RUNTIME_OUTPUT_DIRECTORY)
