# Binary property lists, ours against libplist on the same payload.
pkg_check_modules(LIBPLIST REQUIRED IMPORTED_TARGET libplist-2.0)
zt_add_bench(bench_plist ${CMAKE_CURRENT_SOURCE_DIR}/plist.cpp LIBS PkgConfig::LIBPLIST)
