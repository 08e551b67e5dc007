# The libraries that everything may use. Those that only one library of ours needs are found in
# that library's own folder.

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

# fmt, compiled in: see fmt.cpp.
find_path(ORVEX_FMT_INCLUDE fmt/format-inl.h REQUIRED)
add_library(orvex_fmt STATIC ${CMAKE_CURRENT_LIST_DIR}/fmt.cpp)
target_include_directories(orvex_fmt SYSTEM PUBLIC ${ORVEX_FMT_INCLUDE})

# libedit. A lean build links the archives, with those that libedit itself draws on.
find_path(ORVEX_LIBEDIT_INCLUDE histedit.h REQUIRED)
add_library(orvex_libedit INTERFACE)
target_include_directories(orvex_libedit SYSTEM INTERFACE ${ORVEX_LIBEDIT_INCLUDE})
if(ORVEX_LEAN)
  foreach(name libedit libbsd libmd libtinfo)
    find_library(ORVEX_${name} ${name}.a REQUIRED)
    target_link_libraries(orvex_libedit INTERFACE ${ORVEX_${name}})
  endforeach()
else()
  find_library(ORVEX_libedit_shared edit REQUIRED)
  target_link_libraries(orvex_libedit INTERFACE ${ORVEX_libedit_shared})
endif()
