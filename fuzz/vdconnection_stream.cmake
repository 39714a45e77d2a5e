# A connection's receive path over an arbitrary byte stream of frames: faults
# are logged and skipped, nothing escapes, no call runs without a whole message.
# Built without the mirroring core: only the parser of forwarded names.
file(GLOB vdconnection_stream_socket RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/src/transport/asyncsocket*.cpp)
zt_add_fuzzer(vdconnection_stream ${PROJECT_SOURCE_DIR}/fuzz/vdconnection_stream.cpp
  SOURCES ${ZT_RUNTIME_SOURCES} ${vdconnection_stream_socket} src/core/ztforwardedselector.cpp
          src/transport/vdmessage.cpp src/transport/vdconnection.cpp
  LIBS Qt6::Network
  SECONDS 30)
