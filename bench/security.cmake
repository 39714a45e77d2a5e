# The ciphers beside `openssl speed`, PBKDF2, and a SASL login against the test
# services; the login drives the server with the tests' small IRC helper.
zt_add_bench(bench_security ${CMAKE_CURRENT_SOURCE_DIR}/security.cpp)
target_include_directories(bench_security PRIVATE ${PROJECT_SOURCE_DIR}/tests/security)
