# KORegex beside bare PCRE calls on the same compiled pattern.
zt_add_bench(bench_regex ${CMAKE_CURRENT_SOURCE_DIR}/regex.cpp LIBS PkgConfig::PCRE)
