# The one place for Quillon's build options and compiler flags: language level, warnings as errors,
# the sanitizer build, ccache and the compilation database.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

option(QUILLON_WERROR "Treat compiler warnings as errors" ON)
option(QUILLON_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(QUILLON_BUILD_BENCHMARKS "Build the Google Benchmark programs" ON)

find_program(QUILLON_CCACHE ccache)
if(QUILLON_CCACHE)
    set(CMAKE_C_COMPILER_LAUNCHER "${QUILLON_CCACHE}")
    set(CMAKE_CXX_COMPILER_LAUNCHER "${QUILLON_CCACHE}")
endif()

# Flags every Quillon target gets (third-party code is compiled elsewhere and is not affected).
add_library(quillon_compile_options INTERFACE)
target_compile_options(quillon_compile_options INTERFACE
    -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Woverloaded-virtual -Wimplicit-fallthrough -Wformat=2
    # The same check under each compiler's own name: a local variable hiding another local.
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>
    $<$<CXX_COMPILER_ID:Clang>:-Wshadow-uncaptured-local>)
if(QUILLON_WERROR)
    target_compile_options(quillon_compile_options INTERFACE -Werror)
endif()
# Qt, SQLiteCpp and the other imported targets are included as system headers, so these warnings
# report only our own code.
target_compile_definitions(quillon_compile_options INTERFACE
    QT_NO_KEYWORDS QT_NO_CAST_FROM_BYTEARRAY
    QUILLON_VERSION="${PROJECT_VERSION}")

if(QUILLON_SANITIZE)
    set(QUILLON_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_compile_options(quillon_compile_options INTERFACE ${QUILLON_SANITIZER_FLAGS})
    target_link_options(quillon_compile_options INTERFACE ${QUILLON_SANITIZER_FLAGS})
    target_compile_definitions(quillon_compile_options INTERFACE QUILLON_SANITIZED=1)
endif()
