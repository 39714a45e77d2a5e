# Binary property-list reader: arbitrary input must fail cleanly or round-trip.
zt_add_fuzzer(plist_reader ${PROJECT_SOURCE_DIR}/fuzz/plist_reader.cpp SOURCES ${ZT_RUNTIME_SOURCES} SECONDS 60)
