# Invocation message bodies: arbitrary bodies decode or fail with their named
# exceptions, and whatever decodes encodes and decodes back to the same call.
# The codec builds on the runtime alone.
zt_add_fuzzer(vdmessage_body ${PROJECT_SOURCE_DIR}/fuzz/vdmessage_body.cpp
  SOURCES ${ZT_RUNTIME_SOURCES} src/transport/vdmessage.cpp
  SECONDS 30)
