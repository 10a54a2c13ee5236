# What every target of the project shares, and one function per kind of target.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME daemon)
if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release)
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(VORBEL_WERROR)
    add_compile_options(-Werror)
endif()
if(VORBEL_SANITIZE)
    add_compile_options(-fsanitize=${VORBEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${VORBEL_SANITIZE})
endif()

# vorbel_library(NAME SOURCES file... [PUBLIC target...] [PRIVATE target...])
# A static library; its headers are included from the root of the source tree.
function(vorbel_library name)
    cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
    target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE})
endfunction()

# vorbel_preloaded_library(NAME SOURCE...)
# A library that is preloaded in front of a sanitizer's own runtime: it must not depend on one.
function(vorbel_preloaded_library name)
    add_library(${name} SHARED ${ARGN})
    set_target_properties(${name} PROPERTIES AUTOMOC OFF)
    target_compile_options(${name} PRIVATE -fno-sanitize=all)
    target_link_options(${name} PRIVATE -fno-sanitize=all)
    target_link_libraries(${name} PRIVATE ${CMAKE_DL_LIBS})
endfunction()

# vorbel_unit_test(NAME LIBRARIES target... [SOURCES file...] [OWN_NETWORK])
# Builds NAME.cpp of the calling folder as a QtTest program and registers it; with OWN_NETWORK it runs where
# the daemon's port is free.
function(vorbel_unit_test name)
    cmake_parse_arguments(arg "OWN_NETWORK" "" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${name} ${name}.cpp ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} Qt5::Test)
    if(arg_OWN_NETWORK)
        set(network ${PROJECT_SOURCE_DIR}/tests/support/own_network)
    endif()
    add_test(NAME unit.${name} COMMAND ${network} $<TARGET_FILE:${name}>)
endfunction()

# vorbel_pytest(NAME FILES file... [TIMEOUT seconds] [LABELS label...])
# Registers files or folders that pytest runs against the programs of this build, in a network namespace of its own.
# What may take long is begun first.
function(vorbel_pytest name)
    cmake_parse_arguments(arg "" "TIMEOUT" "FILES;LABELS" ${ARGN})
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 180)
    endif()
    list(TRANSFORM arg_FILES PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
    add_test(NAME ${name} COMMAND ${PROJECT_SOURCE_DIR}/tests/run ${arg_FILES})
    set_tests_properties(${name} PROPERTIES
        COST ${arg_TIMEOUT}
        TIMEOUT ${arg_TIMEOUT}
        LABELS "${arg_LABELS}"
        ENVIRONMENT "VORBEL_BUILD_DIR=${PROJECT_BINARY_DIR};VORBEL_SANITIZED=${VORBEL_SANITIZE}")
endfunction()

# vorbel_fuzzer(NAME LIBRARIES target... [SECONDS n])
# Builds NAME.cpp as a libFuzzer program and registers a run of n seconds, 5 by default, that begins with the
# seeds in corpus/NAME.
function(vorbel_fuzzer name)
    cmake_parse_arguments(arg "" "SECONDS" "LIBRARIES" ${ARGN})
    if(NOT arg_SECONDS)
        set(arg_SECONDS 5)
    endif()
    add_executable(${name} ${name}.cpp)
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    add_test(NAME fuzz.${name}
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/run $<TARGET_FILE:${name}>
                     ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name} ${arg_SECONDS})
    set_tests_properties(fuzz.${name} PROPERTIES LABELS fuzz)
endfunction()

# vorbel_benchmark(NAME LIBRARIES target...)
# Builds NAME.cpp as a Google Benchmark program.
function(vorbel_benchmark name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${name} ${name}.cpp ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} benchmark::benchmark)
endfunction()
