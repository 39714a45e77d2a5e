# Base64, Base32, the passphrase buffer, Blowfish and PEM keys over arbitrary input.
file(GLOB security_sources RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/security/*.cpp)
zt_add_fuzzer(security_decoders ${PROJECT_SOURCE_DIR}/fuzz/security_decoders.cpp
  SOURCES ${ZT_RUNTIME_SOURCES} ${security_sources}
  LIBS OpenSSL::Crypto PkgConfig::SASL2 Qt6::Network
  SECONDS 30)
