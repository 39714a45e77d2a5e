zt_add_fuzzer(regex_template ${PROJECT_SOURCE_DIR}/fuzz/regex_template.cpp
  SOURCES src/rules/koregex.cpp src/rules/koregex_replace.cpp src/rules/koregex_subject.cpp
          src/rules/koregexmatch.cpp ${ZT_RUNTIME_SOURCES}
  LIBS PkgConfig::PCRE
  SECONDS 30)
