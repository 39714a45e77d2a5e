# Runs one libFuzzer target for a bounded time on a scratch copy of its corpus.
file(REMOVE_RECURSE ${CORPUS})
file(MAKE_DIRECTORY ${CORPUS})
if(EXISTS ${INITIAL})
  file(GLOB inputs ${INITIAL}/*)
  if(inputs)
    file(COPY ${inputs} DESTINATION ${CORPUS})
  endif()
endif()
execute_process(
  COMMAND ${FUZZER} -max_total_time=${SECONDS} -rss_limit_mb=2048 -malloc_limit_mb=64 -timeout=10 -print_final_stats=1 ${CORPUS}
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "fuzzer ${FUZZER} failed with ${rc}")
endif()
