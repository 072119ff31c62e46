# Helpers that declare Quillon's targets the same way everywhere:
#   quillon_add_module(<module> DEPENDS ...)          static library quillon_<module> from src/<module>/*.cpp
#   quillon_add_tests(<module> [DEPENDS ...] [GUI] [MAIN <target>])   test program quillon_<module>_tests from
#                                                     tests/*.cpp (MAIN: a test entry point of its own)
#   quillon_add_benchmark(<name> SOURCES ... DEPENDS ...)  Google Benchmark program quillon_<name>_benchmark
# Sources are gathered by folder (a module is its folder), so adding a file needs no edit here; the include
# root is src/, so code includes "store/OAKStore.h".

function(quillon_add_module module)
    cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
    set(target quillon_${module})
    file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp" "${CMAKE_CURRENT_SOURCE_DIR}/*.h")
    if(NOT sources MATCHES "\\.cpp")
        # A module whose first source file is not written yet declares an empty interface target, so the
        # rest of the tree still configures.
        add_library(${target} INTERFACE)
        target_include_directories(${target} INTERFACE "${PROJECT_SOURCE_DIR}/src")
        return()
    endif()
    add_library(${target} STATIC ${sources})
    target_include_directories(${target} PUBLIC "${PROJECT_SOURCE_DIR}/src")
    target_link_libraries(${target} PUBLIC ${ARG_DEPENDS} PRIVATE quillon_compile_options)
endfunction()

function(quillon_add_tests module)
    cmake_parse_arguments(ARG "GUI" "MAIN" "DEPENDS" ${ARGN})
    set(target quillon_${module}_tests)
    file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/tests/*.cpp" "${CMAKE_CURRENT_SOURCE_DIR}/tests/*.h")
    if(NOT sources MATCHES "\\.cpp")
        return()
    endif()
    add_executable(${target} ${sources})
    if(ARG_MAIN)
        set(test_main ${ARG_MAIN})
    elseif(ARG_GUI)
        set(test_main quillon_gui_test_main)
    else()
        set(test_main quillon_test_main)
    endif()
    target_link_libraries(${target} PRIVATE quillon_${module} ${ARG_DEPENDS} ${test_main}
        quillon_testing GTest::gtest GTest::gmock rapidcheck quillon_compile_options)
    # Only test programs know where the source tree is (for their fixtures), so the libraries compile the
    # same in every checkout and a compiler cache serves them all.
    target_compile_definitions(${target} PRIVATE QUILLON_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
    # Each test runs in its own process with a clean, fixed environment so that results do not depend on
    # the user's locale, time zone or display.
    gtest_discover_tests(${target}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT 300
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;RC_PARAMS=max_success=200")
endfunction()

function(quillon_add_benchmark name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
    set(target quillon_${name}_benchmark)
    add_executable(${target} ${ARG_SOURCES})
    target_link_libraries(${target} PRIVATE ${ARG_DEPENDS} benchmark::benchmark quillon_compile_options)
endfunction()
