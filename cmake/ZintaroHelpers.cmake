# Shared build helpers. Every target of the project goes through one of these,
# so warnings, test discovery and fuzzing flags stay in one place.

function(zt_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-missing-field-initializers)
endfunction()

# zt_add_test(<name> <sources…> [LIBS <libs…>])
# One GoogleTest executable, discovered test by test, with the shared main
# that creates a QCoreApplication.
function(zt_add_test name)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS} ${PROJECT_SOURCE_DIR}/tests/test_main.cpp)
  target_link_libraries(${name} PRIVATE Zintaro::Core GTest::gtest GTest::gmock ${ARG_LIBS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_definitions(${name} PRIVATE ZT_TEST_SOURCE_DIR="${PROJECT_SOURCE_DIR}/tests"
                                             ZT_TEST_BINARY_DIR="${CMAKE_CURRENT_BINARY_DIR}")
  zt_set_warnings(${name})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# zt_add_bench(<name> <sources…> [LIBS <libs…>])
function(zt_add_bench name)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE Zintaro::Core benchmark::benchmark ${ARG_LIBS})
  zt_set_warnings(${name})
endfunction()

# zt_add_fuzzer(<name> <harness.cpp> SOURCES <library sources…> [LIBS …] [SECONDS n])
# The harness and the library sources it exercises are compiled with
# libFuzzer coverage and AddressSanitizer; the rest of the library is not
# linked, which keeps fuzz builds small. A short run joins the test suite.
# Builds without libFuzzer (ZT_BUILD_FUZZ off) make replay_<name> instead: the
# same harness and sources with a plain main (fuzz/replay_main.cpp) that runs
# the committed corpus once, as test fuzz_replay.<name>, under whatever
# sanitizer the build has.
function(zt_add_fuzzer name harness)
  cmake_parse_arguments(ARG "" "SECONDS" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_SECONDS)
    set(ARG_SECONDS 60)
  endif()
  list(TRANSFORM ARG_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/)
  set(initialsrc ${PROJECT_SOURCE_DIR}/fuzz/corpus/${name})
  if(NOT ZT_BUILD_FUZZ)
    if(ZT_BUILD_TESTS AND EXISTS ${initialsrc})
      set(target replay_${name})
      add_executable(${target} ${harness} ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cpp)
      target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_BINARY_DIR}/include)
      target_compile_definitions(${target} PRIVATE ZT_STATIC_DEFINE QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII
                                                   QT_NO_KEYWORDS)
      target_link_libraries(${target} PRIVATE Qt6::Core ${ARG_LIBS})
      zt_set_warnings(${target})
      add_test(NAME fuzz_replay.${name} COMMAND ${target} ${initialsrc})
      set_tests_properties(fuzz_replay.${name} PROPERTIES LABELS replay)
    endif()
    return()
  endif()
  add_executable(${name} ${harness} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_BINARY_DIR}/include)
  target_compile_definitions(${name} PRIVATE ZT_STATIC_DEFINE QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_KEYWORDS)
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined -fno-omit-frame-pointer -g)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_libraries(${name} PRIVATE Qt6::Core ${ARG_LIBS})
  zt_set_warnings(${name})
  if(ZT_BUILD_TESTS)
    set(corpus ${CMAKE_CURRENT_BINARY_DIR}/${name}-corpus)
    add_test(NAME fuzz.${name}
      COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=1
              ${CMAKE_COMMAND} -DFUZZER=$<TARGET_FILE:${name}> -DCORPUS=${corpus} -DINITIAL=${initialsrc}
              -DSECONDS=${ARG_SECONDS} -P ${PROJECT_SOURCE_DIR}/cmake/RunFuzzer.cmake)
    set_tests_properties(fuzz.${name} PROPERTIES TIMEOUT 600 LABELS fuzz)
  endif()
endfunction()
