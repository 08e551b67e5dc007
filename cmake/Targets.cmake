# The kinds of targets, each made from the .cpp files of the calling folder.

# orvex_pch(TARGET HEADER ...): headers that are compiled once, for targets that call orvex_use_pch.
# The asan preset builds without them: a file that forgot an include fails there.
function(orvex_pch target)
  if(ORVEX_PCH)
    add_library(${target} STATIC ${CMAKE_SOURCE_DIR}/cmake/pch.cpp)
    target_precompile_headers(${target} PRIVATE ${ARGN})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_compile_options(${target} PRIVATE -fpch-preprocess)  # for ccache to see what is inside
    endif()
  endif()
endfunction()

function(orvex_use_pch target headers)
  if(ORVEX_PCH)
    target_precompile_headers(${target} REUSE_FROM ${headers})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_compile_options(${target} PRIVATE -fpch-preprocess)
    endif()
  endif()
endfunction()

set(ORVEX_STANDARD_HEADERS
  <algorithm> <array> <atomic> <chrono> <condition_variable> <cstdint> <cstring> <deque> <functional>
  <map> <memory> <mutex> <optional> <span> <stdexcept> <string> <string_view> <thread> <tuple>
  <unordered_map> <utility> <vector>)
orvex_pch(orvex_standard_pch ${ORVEX_STANDARD_HEADERS})

# orvex_library(TARGET [LIBRARY ...] [SOURCES FILE ...]): a static library; the libraries are linked
# publicly. Without SOURCES it takes the .cpp files of the folder.
# Includes name files from the repository's root ("lib/platform/device_path.h").
function(orvex_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES")
  set(sources ${arg_SOURCES})
  if(NOT sources)
    file(GLOB sources CONFIGURE_DEPENDS *.cpp)
  endif()
  if(NOT sources)
    return()
  endif()
  add_library(${target} STATIC ${sources})
  target_include_directories(${target} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(${target} PUBLIC ${arg_UNPARSED_ARGUMENTS})
  orvex_use_pch(${target} orvex_standard_pch)
endfunction()

# orvex_program(TARGET LIBRARY ...): a program. It waits for the first library, which it is a thin
# front of.
function(orvex_program target main_library)
  file(GLOB sources CONFIGURE_DEPENDS *.cpp)
  if(NOT sources OR NOT TARGET ${main_library})
    return()
  endif()
  add_executable(${target} ${sources})
  target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR})
  target_compile_definitions(${target} PRIVATE ORVEX_VERSION="${PROJECT_VERSION}")
  target_link_libraries(${target} PRIVATE ${main_library} ${ARGN})
  orvex_use_pch(${target} orvex_standard_pch)
endfunction()

# For a program that links a shared C++ library: with the language's runtime linked in, there would
# be two of them, and one does not know the exceptions of the other.
function(orvex_share_runtime target)
  if(ORVEX_LEAN AND TARGET ${target})
    get_target_property(options ${target} LINK_OPTIONS)
    list(REMOVE_ITEM options -static-libstdc++ -static-libgcc)
    set_target_properties(${target} PROPERTIES LINK_OPTIONS "${options}")
  endif()
endfunction()
