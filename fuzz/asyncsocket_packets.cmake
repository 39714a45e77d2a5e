# Read-packet length rules: terminator reads over arbitrary streams, split at
# arbitrary points, must end exactly at each terminator and lose no byte.
zt_add_fuzzer(asyncsocket_packets ${PROJECT_SOURCE_DIR}/fuzz/asyncsocket_packets.cpp
  SOURCES src/transport/asyncsocket_packets.cpp
  SECONDS 30)
