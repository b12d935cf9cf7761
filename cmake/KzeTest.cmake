# Tests, for both houses. A house is part of the label of its tests: KZE_HOUSE.

find_package(GTest REQUIRED)
include(GoogleTest)

option(KZE_QUICK_TESTS "Compile the tests themselves without optimisation, which takes half as long" OFF)
set(KZE_TSAN_SUPPRESSIONS "" CACHE FILEPATH "What the thread sanitizer passes over")

# kze_test(<name> TIER unit|component|system|fuzz SOURCES ... LIBRARIES ... [TIMEOUT seconds]):
# one GoogleTest program; each of its cases is a test of its own, labelled house.tier.
function(kze_test name)
    cmake_parse_arguments(ARG "" "TIER;TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 60)
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_include_directories(${name} PRIVATE ${KZE_TEST_INCLUDE})
    if(KZE_QUICK_TESTS)
        target_compile_options(${name} PRIVATE -O0)
    endif()
    target_link_libraries(${name} PRIVATE kze_settings ${ARG_LIBRARIES} GTest::gtest GTest::gmock
        GTest::gtest_main Threads::Threads)
    set(environment)
    if(KZEMDLMGR_SANITIZE MATCHES thread)
        set(environment ENVIRONMENT "TSAN_OPTIONS=suppressions=${KZE_TSAN_SUPPRESSIONS}")
    endif()
    # Without the values of parameters, among which are addresses, the names stay what they are.
    gtest_discover_tests(${name} TEST_PREFIX "${name}." DISCOVERY_TIMEOUT 60 NO_PRETTY_VALUES
        PROPERTIES LABELS ${KZE_HOUSE}.${ARG_TIER} TIMEOUT ${ARG_TIMEOUT} ${environment})
endfunction()

# kze_label_test(<name> <tier> <label>): one discovered test, by its whole name, gets a second label:
# root, when it needs root, or user, when root can't run it.
function(kze_label_test name tier label)
    string(MAKE_C_IDENTIFIER ${name} file)
    set(file ${CMAKE_CURRENT_BINARY_DIR}/label_${file}.cmake)
    file(WRITE ${file}
        "set_tests_properties([==[${name}]==] PROPERTIES LABELS \"${KZE_HOUSE}.${tier};${label}\")\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${file})
endfunction()

if(CMAKE_CXX_COMPILER_ID STREQUAL Clang AND KZEMDLMGR_SANITIZE MATCHES address)
    set(KZE_WITH_FUZZERS ON)
else()
    set(KZE_WITH_FUZZERS OFF)
endif()

# kze_fuzzer(<name> [SOURCES ...] [LIBRARIES ...] [OPTIONS ...]): with Clang and the address
# sanitizer a program that looks for inputs, <name>.cpp (<name> DIRECTORY, with the corpus copied to
# the directory). What it is to see its way through is compiled into it.
function(kze_fuzzer name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES;OPTIONS" ${ARGN})
    if(NOT KZE_WITH_FUZZERS)
        return()
    endif()
    add_executable(${name} ${name}.cpp ${ARG_SOURCES})
    target_include_directories(${name} PRIVATE ${KZE_TEST_INCLUDE})
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer ${ARG_OPTIONS})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${name} PRIVATE kze_settings ${ARG_LIBRARIES})
endfunction()

# kze_fuzz_messages(<name>): the generated messages once more, so that a fuzzer sees its way through
# them; $<TARGET_OBJECTS:name> for the fuzzer's sources.
function(kze_fuzz_messages name)
    if(NOT KZE_WITH_FUZZERS)
        return()
    endif()
    add_library(${name} OBJECT ${KZE_MESSAGE_SOURCES})
    add_dependencies(${name} kzemdlmgr::kze_messages)
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer-no-link,${KZEMDLMGR_SANITIZE})
    target_include_directories(${name} SYSTEM PRIVATE
        $<TARGET_PROPERTY:kzemdlmgr::kze_messages,INTERFACE_INCLUDE_DIRECTORIES>)
endfunction()
