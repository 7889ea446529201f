# For projects of client drivers: builds a client as the Notifier itself is built, and tests it beside the real
# zepn.sys.
#
#     find_package(zepn REQUIRED)
#     zepn_add_client(fan SOURCES fan.c)
#     zepn_add_client_course(fan_course CLIENT fan)
#     zepn_add_client_test(fan_tests CLIENT fan SOURCES fan_test.cpp)
#     zepn_add_client_scenario(fan_scenario CLIENT fan FILE fan.json)
#
# The same file serves in the Notifier's sources and in its package, where everything that a client needs lies in one
# folder. Host and programs have the sanitizers of the driver that they load. The sources' own build has them, with and
# without; else they are compiled in the client's build.
cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH ZEPN_ROOT)

# Says why there is no Notifier here, as find_package wants it said.
macro(zepn_refuse text)
    set(zepn_FOUND FALSE)
    set(zepn_NOT_FOUND_MESSAGE "${text}")
    return()
endmacro()

if(NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
    zepn_refuse("the host is compiled with Clang: configure with -DCMAKE_C_COMPILER=clang-19 -DCMAKE_CXX_COMPILER=clang++-19")
endif()
find_program(ZEPN_CLANG clang-19)
find_program(ZEPN_CLANGXX clang++-19)
find_program(ZEPN_LINK lld-link-19)
find_program(ZEPN_DLLTOOL llvm-dlltool-19)
if(NOT ZEPN_CLANG OR NOT ZEPN_CLANGXX OR NOT ZEPN_LINK OR NOT ZEPN_DLLTOOL)
    zepn_refuse("images are built with clang-19, lld-link-19 and llvm-dlltool-19: install clang-19 lld-19 llvm-19")
endif()

# The images that run on the machine that the tests are built for: the Notifier's, and the client's for it.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(ZEPN_MACHINE arm64)
else()
    set(ZEPN_MACHINE x64)
endif()
if(EXISTS ${ZEPN_ROOT}/zepn)
    set(ZEPN_NOTIFIER_IMAGE ${ZEPN_ROOT}/out/${ZEPN_MACHINE}/zepn.sys)
else()
    cmake_path(GET ZEPN_ROOT PARENT_PATH ZEPN_NOTIFIER_IMAGE)
    string(APPEND ZEPN_NOTIFIER_IMAGE /${ZEPN_MACHINE}/zepn.sys)
endif()
if(NOT EXISTS ${ZEPN_NOTIFIER_IMAGE})
    zepn_refuse("${ZEPN_NOTIFIER_IMAGE} is not there: build it with ${ZEPN_ROOT}/zepn build --image-only")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/image_options.cmake)
list(TRANSFORM ZEPN_PLATFORM_SOURCES PREPEND ${ZEPN_ROOT}/)
list(TRANSFORM ZEPN_IMAGE_SOURCES PREPEND ${ZEPN_ROOT}/)
# What every client may use beside the platform: the Notifier's interface, and the part that finds and holds it.
set(ZEPN_CLIENT_SOURCES ${ZEPN_ROOT}/samples/common/notifier_link.cpp)
set(ZEPN_CLIENT_INCLUDES ${ZEPN_ROOT}/driver/include ${ZEPN_ROOT}/samples/common)

# The folder of the sources' own build whose host suits this one; empty: none does.
set(ZEPN_TREE_PRESET "")
option(ZEPN_COMPILE_HOST "Compile the host in this build, also beside the Notifier's sources" OFF)
if(EXISTS ${ZEPN_ROOT}/zepn AND NOT ZEPN_COMPILE_HOST AND NOT CMAKE_CROSSCOMPILING
    AND CMAKE_CXX_COMPILER_VERSION MATCHES "^19\\." AND NOT CMAKE_CXX_FLAGS MATCHES "-stdlib=|-D *_GLIBCXX")
    string(REGEX MATCHALL "-fsanitize=[^ ]*" sanitizers "${CMAKE_CXX_FLAGS}")
    if(sanitizers STREQUAL "")
        set(ZEPN_TREE_PRESET native)
    elseif(sanitizers STREQUAL "-fsanitize=address,undefined")
        set(ZEPN_TREE_PRESET asan)
    endif()
endif()

# Brought up to date by each build of the client.
function(zepn_take_from_tree)
    set(tree ${ZEPN_ROOT}/build/${ZEPN_TREE_PRESET})
    set(products ${tree}/host/libhost.a ${tree}/tools/zepn-play ${tree}/tools/zepn-test-client)
    add_custom_target(zepn_tree ALL COMMAND ${ZEPN_ROOT}/cmake/host_for_clients.sh ${ZEPN_TREE_PRESET}
        BYPRODUCTS ${products} USES_TERMINAL COMMENT "The Notifier's sources: host, player and course" VERBATIM)
    include(${ZEPN_ROOT}/host/use.cmake)
    add_library(zepn::host STATIC IMPORTED GLOBAL)
    add_executable(zepn-play IMPORTED GLOBAL)
    add_executable(zepn-test-client IMPORTED GLOBAL)
    set(targets zepn::host zepn-play zepn-test-client)
    foreach(target product IN ZIP_LISTS targets products)
        set_target_properties(${target} PROPERTIES IMPORTED_LOCATION ${product})
        add_dependencies(${target} zepn_tree)
    endforeach()
    target_link_libraries(zepn::host INTERFACE host_use)
endfunction()

if(TARGET zepn::host)
elseif(ZEPN_TREE_PRESET)
    zepn_take_from_tree()
else()
    # Not optimised unless the client's build type says so: compiling would take longer than the tests do.
    set(ZEPN_RUNS_OFTEN "")
    include(${CMAKE_CURRENT_LIST_DIR}/compile_time.cmake)
    add_subdirectory(${ZEPN_ROOT}/host ${CMAKE_BINARY_DIR}/zepn/host EXCLUDE_FROM_ALL)
    add_library(zepn::host ALIAS host)
endif()

# What the host's programs have in common: the reading of command lines, and headers that are precompiled for all.
function(zepn_compile_as_tool program)
    find_package(nlohmann_json REQUIRED)
    find_package(CLI11 REQUIRED)
    set(targets ${program})
    if(NOT TARGET zepn_command_line)
        add_library(zepn_command_line STATIC EXCLUDE_FROM_ALL ${ZEPN_ROOT}/tools/command_line/command_line.cpp)
        zepn_precompile(zepn_command_line <CLI/CLI.hpp> <nlohmann/json.hpp>)
        list(APPEND targets zepn_command_line)
    endif()
    # Headers are precompiled for one kind of code, whatever the client's build asks for its own.
    set_target_properties(${targets} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
    foreach(target ${targets})
        target_include_directories(${target} PRIVATE ${ZEPN_ROOT})
        target_link_libraries(${target} PRIVATE zepn::host nlohmann_json::nlohmann_json CLI11::CLI11)
        target_compile_definitions(${target} PRIVATE ${ZEPN_FRAMEWORK_DEFINITIONS})
        target_compile_features(${target} PRIVATE cxx_std_20)
    endforeach()
    target_link_libraries(${program} PRIVATE zepn_command_line)
    zepn_precompiled(${program} zepn_command_line)
    zepn_unite(${program})
endfunction()

# zepn_add_client(name SOURCES source... [INF template] [INCLUDES folder...] [DEFINITIONS definition...]): the targets
# <name>_x64 and <name>_arm64 make <machine>/<name>.sys with PDB and link map in the build folder, and the INF with
# $ARCH$ filled in; <name>_native makes the same driver as the module native/<name>.so, for debugger and sanitizers. All
# three are built by default.
function(zepn_add_client name)
    cmake_parse_arguments(PARSE_ARGV 1 client "" "INF" "SOURCES;INCLUDES;DEFINITIONS")
    if(NOT client_SOURCES OR client_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "zepn_add_client(name SOURCES source... [INF template] [INCLUDES folder...] "
            "[DEFINITIONS definition...])")
    endif()
    set(sources "")
    foreach(source ${client_SOURCES})
        cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
        list(APPEND sources ${source})
    endforeach()
    list(APPEND sources ${ZEPN_CLIENT_SOURCES} ${ZEPN_PLATFORM_SOURCES})
    list(TRANSFORM client_INCLUDES PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
    set(client_INCLUDES ${CMAKE_CURRENT_SOURCE_DIR} ${client_INCLUDES} ${ZEPN_CLIENT_INCLUDES})
    list(APPEND client_DEFINITIONS ${ZEPN_FRAMEWORK_DEFINITIONS})

    foreach(machine ${ZEPN_MACHINES})
        zepn_add_client_image(${machine})
    endforeach()
    if(client_INF)
        zepn_add_client_inf(${client_INF})
    endif()

    add_library(${name}_native MODULE ${sources})
    target_include_directories(${name}_native PRIVATE ${client_INCLUDES})
    target_include_directories(${name}_native SYSTEM PRIVATE ${ZEPN_ROOT}/platform/include)
    target_compile_definitions(${name}_native PRIVATE ${client_DEFINITIONS})
    target_compile_features(${name}_native PRIVATE cxx_std_20)
    target_compile_options(${name}_native PRIVATE
        -g -Wall -Wextra ${ZEPN_NATIVE_OPTIONS} "$<$<COMPILE_LANGUAGE:CXX>:${ZEPN_CPP_OPTIONS}>")
    target_link_options(${name}_native PRIVATE -Wl,-Bsymbolic)
    set_target_properties(${name}_native PROPERTIES
        PREFIX "" OUTPUT_NAME ${name} SUFFIX .so LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/native)
endfunction()

# One machine's image. By commands of its own: the project's compilers are those of this machine. Objects and outputs
# are named from the folder where each command runs, so that no path of this machine gets into the PDB.
function(zepn_add_client_image machine)
    set(folder ${CMAKE_CURRENT_BINARY_DIR}/${machine})
    set(objects ${CMAKE_CURRENT_BINARY_DIR}/${name}_${machine}_objects)
    file(MAKE_DIRECTORY ${folder} ${objects})
    set(libraries "")
    set(library_names "")
    foreach(module ntoskrnl wdfldr)
        set(library ${objects}/${module}.lib)
        set(exports ${ZEPN_ROOT}/platform/windows/${module}.def)
        add_custom_command(OUTPUT ${library}
            COMMAND ${ZEPN_DLLTOOL} -m ${${machine}_DLLTOOL} -d ${exports} -l ${library}
            DEPENDS ${exports} VERBATIM)
        list(APPEND libraries ${library})
        list(APPEND library_names ../${name}_${machine}_objects/${module}.lib)
    endforeach()

    set(flags ${ZEPN_IMAGE_COMPILE_OPTIONS} -Wall -Wextra
        -ffile-prefix-map=${ZEPN_ROOT}/=zepn/ -ffile-prefix-map=${CMAKE_CURRENT_SOURCE_DIR}=.)
    foreach(include ${client_INCLUDES})
        list(APPEND flags -I${include})
    endforeach()
    foreach(definition ${client_DEFINITIONS})
        list(APPEND flags -D${definition})
    endforeach()
    set(compiled "")
    set(compiled_names "")
    foreach(source ${sources} ${ZEPN_IMAGE_SOURCES})
        cmake_path(GET source FILENAME file)
        cmake_path(GET source EXTENSION LAST_ONLY extension)
        set(object ${objects}/${file}.obj)
        if(object IN_LIST compiled)
            message(FATAL_ERROR "${name}: two sources are called ${file}")
        endif()
        if(extension STREQUAL .c)
            set(compiler ${ZEPN_CLANG} -std=c17)
        else()
            set(compiler ${ZEPN_CLANGXX} -std=c++20 ${ZEPN_CPP_OPTIONS})
        endif()
        # The memory routines must not become calls of themselves.
        if(file STREQUAL memory.cpp)
            list(APPEND compiler -fno-builtin)
        endif()
        add_custom_command(OUTPUT ${object}
            COMMAND ${compiler} --target=${${machine}_TRIPLE} ${flags} -isystem ${ZEPN_ROOT}/platform/include
                    -MD -MQ ${object} -MF ${object}.d -c ${source} -o ${file}.obj
            DEPENDS ${source} DEPFILE ${object}.d WORKING_DIRECTORY ${objects}
            COMMENT "Compiling ${file} for ${machine}" VERBATIM)
        list(APPEND compiled ${object})
        list(APPEND compiled_names ../${name}_${machine}_objects/${file}.obj)
    endforeach()
    set(products ${folder}/${name}.sys ${folder}/${name}.pdb ${folder}/${name}.map)
    add_custom_command(OUTPUT ${products}
        COMMAND ${ZEPN_LINK} ${ZEPN_IMAGE_LINK_OPTIONS} /machine:${machine} ${${machine}_LINK_OPTIONS}
                /pdb:${name}.pdb /lldmap:${name}.map /out:${name}.sys ${compiled_names} ${library_names}
        DEPENDS ${compiled} ${libraries} WORKING_DIRECTORY ${folder} COMMENT "Linking ${machine}/${name}.sys" VERBATIM)
    add_custom_target(${name}_${machine} ALL DEPENDS ${products})
endfunction()

# Written when CMake runs, and when the template has changed.
function(zepn_add_client_inf template)
    cmake_path(ABSOLUTE_PATH template BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${template})
    file(READ ${template} text)
    foreach(machine ${ZEPN_MACHINES})
        string(REPLACE x64 amd64 architecture ${machine})
        string(REPLACE "$ARCH$" ${architecture} inf "${text}")
        file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${machine}/${name}.inf CONTENT "${inf}" @ONLY
            NEWLINE_STYLE CRLF)
    endforeach()
endfunction()

# The program that runs the course for clients, as ./zepn test-client does. It is compiled once, when a course is added.
function(zepn_add_course_program)
    if(TARGET zepn-test-client)
        return()
    endif()
    set(tools ${ZEPN_ROOT}/tools)
    file(GLOB sources CONFIGURE_DEPENDS ${tools}/test_client/*.cpp)
    add_executable(zepn-test-client ${sources} ${tools}/play/statuses.cpp)
    target_compile_definitions(zepn-test-client PRIVATE ZEPN_ROOT="${ZEPN_ROOT}")
    # One must include a header before all others, and the others share no translation unit with a main.
    set_source_files_properties(${tools}/test_client/main.cpp PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
    set_source_files_properties(${tools}/test_client/notifier_calls.cpp PROPERTIES
        SKIP_UNITY_BUILD_INCLUSION ON SKIP_PRECOMPILE_HEADERS ON)
    zepn_compile_as_tool(zepn-test-client)
endfunction()

# zepn_add_client_course(name CLIENT client [ARGUMENTS argument...]): CTest runs the course on the client's image for
# this machine and, as <name>_module, on its native module. The arguments are those of ./zepn test-client.
function(zepn_add_client_course name)
    cmake_parse_arguments(PARSE_ARGV 1 course "" "CLIENT" "ARGUMENTS")
    if(NOT course_CLIENT OR course_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "zepn_add_client_course(name CLIENT client [ARGUMENTS argument...])")
    endif()
    zepn_add_course_program()
    set(arguments --notifier ${ZEPN_NOTIFIER_IMAGE} ${course_ARGUMENTS})
    set(image ${CMAKE_CURRENT_BINARY_DIR}/${ZEPN_MACHINE}/${course_CLIENT}.sys)
    add_test(NAME ${name} COMMAND zepn-test-client ${image} ${arguments})
    add_test(NAME ${name}_module COMMAND zepn-test-client $<TARGET_FILE:${course_CLIENT}_native> ${arguments})
endfunction()

# zepn_add_client_test(name CLIENT client SOURCES source...): a GoogleTest program of which CTest knows. Its sources
# find as text: ZEPN_NOTIFIER_IMAGE, the real Notifier; CLIENT_IMAGE, the client's image for this machine;
# CLIENT_MODULE, its native module.
function(zepn_add_client_test name)
    cmake_parse_arguments(PARSE_ARGV 1 test "" "CLIENT" "SOURCES")
    if(NOT test_SOURCES OR NOT test_CLIENT OR test_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "zepn_add_client_test(name CLIENT client SOURCES source...)")
    endif()
    if(NOT TARGET GTest::gtest_main)
        if(CMAKE_CROSSCOMPILING)  # Debian has the library for this machine only, and its source for all
            set(INSTALL_GTEST OFF)
            add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
            add_library(GTest::gtest_main ALIAS gtest_main)
        else()
            find_package(GTest REQUIRED)
        endif()
    endif()
    add_executable(${name} ${test_SOURCES})
    target_include_directories(${name} PRIVATE ${ZEPN_CLIENT_INCLUDES})
    target_link_libraries(${name} PRIVATE zepn::host GTest::gtest_main)
    target_compile_options(${name} PRIVATE -Wall -Wextra)
    target_compile_definitions(${name} PRIVATE
        ZEPN_NOTIFIER_IMAGE="${ZEPN_NOTIFIER_IMAGE}"
        CLIENT_IMAGE="${CMAKE_CURRENT_BINARY_DIR}/${ZEPN_MACHINE}/${test_CLIENT}.sys"
        CLIENT_MODULE="$<TARGET_FILE:${test_CLIENT}_native>")
    add_dependencies(${name} ${test_CLIENT}_${ZEPN_MACHINE} ${test_CLIENT}_native)
    # A process for each case: one that ends it, by a memory fault or by never ending, fails alone.
    include(GoogleTest)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 600)
endfunction()

# The player of scenarios, which ./zepn demo also runs. It is compiled once, when a scenario is added.
function(zepn_add_player)
    if(TARGET zepn-play)
        return()
    endif()
    file(GLOB sources CONFIGURE_DEPENDS ${ZEPN_ROOT}/tools/play/*.cpp ${ZEPN_ROOT}/tools/play/reading/*.cpp)
    add_executable(zepn-play ${sources})
    # Only the paths that it is given: a client's build has no native Notifier.
    target_compile_definitions(zepn-play PRIVATE ZEPN_ROOT="${ZEPN_ROOT}" ZEPN_NATIVE_DRIVER="")
    # The program's own, and one that must include a header before all others.
    set_source_files_properties(${ZEPN_ROOT}/tools/play/main.cpp PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
    set_source_files_properties(${ZEPN_ROOT}/tools/play/run.cpp PROPERTIES
        SKIP_UNITY_BUILD_INCLUSION ON SKIP_PRECOMPILE_HEADERS ON)
    zepn_compile_as_tool(zepn-play)
endfunction()

# zepn_add_client_scenario(name CLIENT client FILE scenario): CTest plays the scenario on the Notifier's image, the
# client as its image for this machine and, as <name>_module, as its native module.
function(zepn_add_client_scenario name)
    cmake_parse_arguments(PARSE_ARGV 1 scenario "" "CLIENT;FILE" "")
    if(NOT scenario_CLIENT OR NOT scenario_FILE OR scenario_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "zepn_add_client_scenario(name CLIENT client FILE scenario)")
    endif()
    zepn_add_player()
    set(play zepn-play ${CMAKE_CURRENT_SOURCE_DIR}/${scenario_FILE} --image ${ZEPN_NOTIFIER_IMAGE} --driver)
    set(image ${CMAKE_CURRENT_BINARY_DIR}/${ZEPN_MACHINE}/${scenario_CLIENT}.sys)
    add_test(NAME ${name} COMMAND ${play} ${scenario_CLIENT}=${image})
    add_test(NAME ${name}_module COMMAND ${play} ${scenario_CLIENT}=$<TARGET_FILE:${scenario_CLIENT}_native>)
endfunction()
