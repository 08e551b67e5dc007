# How everything is compiled, whichever target it belongs to.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)  # computed goto, __builtin_expect, 128-bit integers
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Assertions of our own stay active in every build, so NDEBUG plays no part in any of them. Line
# numbers are enough to read a stack trace from the field.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1")
set(CMAKE_CXX_FLAGS_DEBUG "-Og -g")

# A product and a sum stay two operations: results must not differ between processors that can fuse
# them and those that cannot.
add_compile_options(-Wall -Wextra -ffp-contract=off)
if(ORVEX_WERROR)
  add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 warns of overlapping copies inside std::string's operator+ where there are none.
  add_compile_options(-Wno-restrict)
elseif(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-Wthread-safety)
endif()

# Paths in assertion reports and debug information start at the repository's root, so that they say
# the same wherever it lies, and a compiler cache serves every clone. The cache may name a source
# relative to the build folder, which is the second form. Coverage data must find its sources again
# and keeps their full paths.
file(RELATIVE_PATH source_from_build ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
set(map -ffile-prefix-map)
if(ORVEX_COVERAGE)
  set(map -fmacro-prefix-map)
  add_compile_options(-O0 -g --coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
add_compile_options(${map}=${CMAKE_SOURCE_DIR}/= ${map}=${source_from_build}=
                    ${map}=${CMAKE_BINARY_DIR}=.)

if(ORVEX_SANITIZE)
  add_compile_options(-fsanitize=${ORVEX_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -O1 -g)
  add_link_options(-fsanitize=${ORVEX_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Instrumented code defeats the flow analysis behind these; the release build has them.
    add_compile_options(-Wno-maybe-uninitialized -Wno-stringop-overflow -Wno-array-bounds)
  endif()
endif()
if(ORVEX_SANITIZE OR ORVEX_COVERAGE)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
endif()

if(ORVEX_LIBFUZZER)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "libFuzzer comes with clang: configure with the preset 'fuzz'.")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# A script's run is often shorter than the loading of a program's shared libraries. Fixed addresses
# save the relocations, linked-in language libraries their loading, and dropped sections the pages.
if(ORVEX_LEAN)
  add_compile_options(-fno-pie -ffunction-sections -fdata-sections)
  add_link_options(-no-pie -static-libstdc++ -static-libgcc -Wl,--gc-sections -Wl,--as-needed)
endif()

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # Precompiled headers carry macros and times that the cache would otherwise refuse to trust. Paths
  # below the repository count relative to it: a fresh clone elsewhere finds what this one compiled.
  set(CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env
      CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
      CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${CCACHE})
endif()
