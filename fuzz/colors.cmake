zt_add_fuzzer(colors ${PROJECT_SOURCE_DIR}/fuzz/colors.cpp
  SOURCES src/text/colors.cpp src/text/ircstring.cpp ${ZT_RUNTIME_SOURCES}
  SECONDS 30)
