# bench_transport_zintaro: the Zintaro link between two processes, with its
# agent helper from bench/peers/zintaro.
add_subdirectory(${CMAKE_CURRENT_SOURCE_DIR}/peers/zintaro)
zt_add_bench(bench_transport_zintaro ${CMAKE_CURRENT_SOURCE_DIR}/transport_zintaro.cpp)
target_include_directories(bench_transport_zintaro PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(bench_transport_zintaro PRIVATE zt_bench_model)
target_compile_definitions(bench_transport_zintaro PRIVATE ZT_ZINTARO_PEER="$<TARGET_FILE:peer_zintaro_agent>")
add_dependencies(bench_transport_zintaro peer_zintaro_agent)
