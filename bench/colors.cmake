# bench_colors: our converter. bench_colors_libcommuni: the same corpus through
# libcommuni (a Qt 5 library), built as a separate CMake project because it
# cannot live in one process, or one CMake project, with Qt 6. It is only
# built on request (`ninja bench_colors_libcommuni`) and only when Qt 5 and
# libcommuni are installed (Debian: qtbase5-dev, libcommuni-dev).
zt_add_bench(bench_colors ${CMAKE_CURRENT_SOURCE_DIR}/colors.cpp)
target_include_directories(bench_colors PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})

find_file(ZT_QT5_CORE_CONFIG Qt5CoreConfig.cmake
  PATHS ${Qt6_DIR}/../Qt5Core /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/cmake/Qt5Core /usr/lib/cmake/Qt5Core)
find_library(ZT_COMMUNI_UTIL_LIBRARY IrcUtil)
if(ZT_QT5_CORE_CONFIG AND ZT_COMMUNI_UTIL_LIBRARY)
  include(ExternalProject)
  ExternalProject_Add(bench_colors_libcommuni
    SOURCE_DIR ${CMAKE_CURRENT_SOURCE_DIR}/peers/libcommuni
    BINARY_DIR ${CMAKE_CURRENT_BINARY_DIR}/peers/libcommuni
    CMAKE_ARGS -DCMAKE_BUILD_TYPE=${CMAKE_BUILD_TYPE} -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
    INSTALL_COMMAND ""
    BUILD_ALWAYS TRUE
    EXCLUDE_FROM_ALL TRUE)
endif()
