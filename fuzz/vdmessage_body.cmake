# Invocation message bodies: arbitrary bodies decode or fail with their named
# exceptions, and whatever decodes encodes and decodes back to the same call.
file(GLOB vdmessage_body_core RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/core/*.cpp)
zt_add_fuzzer(vdmessage_body ${PROJECT_SOURCE_DIR}/fuzz/vdmessage_body.cpp
  SOURCES ${ZT_RUNTIME_SOURCES} ${vdmessage_body_core} src/transport/vdmessage.cpp
  SECONDS 30)
