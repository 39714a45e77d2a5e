# A SASL conversation stepped with arbitrary server data.
file(GLOB security_sources RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/security/*.cpp)
zt_add_fuzzer(sasl_step ${PROJECT_SOURCE_DIR}/fuzz/sasl_step.cpp
  SOURCES ${ZT_RUNTIME_SOURCES} ${security_sources}
  LIBS OpenSSL::Crypto PkgConfig::SASL2 Qt6::Network
  SECONDS 30)
