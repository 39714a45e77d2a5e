# bench_transport_peers: the yardsticks for the agent-to-client link, Qt
# Remote Objects and a raw stream of length-prefixed frames, each with its
# helper process from bench/peers/qtro. The Qt Remote Objects part is built
# only when the module is installed (Debian: qt6-remoteobjects-dev).
find_package(Qt6 6.4 QUIET COMPONENTS RemoteObjects)
add_subdirectory(${CMAKE_CURRENT_SOURCE_DIR}/peers/qtro)

add_subdirectory(${CMAKE_CURRENT_SOURCE_DIR}/peers/zintaro)
zt_add_bench(bench_transport_peers ${CMAKE_CURRENT_SOURCE_DIR}/transport_peers.cpp
             ${CMAKE_CURRENT_SOURCE_DIR}/peers/zintaro/link_benchmarks.cpp)
target_link_libraries(bench_transport_peers PRIVATE zt_bench_model)
target_compile_definitions(bench_transport_peers PRIVATE ZT_ZINTARO_PEER="$<TARGET_FILE:peer_zintaro_agent>")
add_dependencies(bench_transport_peers peer_zintaro_agent)
target_include_directories(bench_transport_peers PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(bench_transport_peers PRIVATE ZT_FRAME_PEER="$<TARGET_FILE:peer_frame_writer>")
add_dependencies(bench_transport_peers peer_frame_writer)
if(TARGET Qt6::RemoteObjects)
  set_target_properties(bench_transport_peers PROPERTIES AUTOMOC ON)
  target_link_libraries(bench_transport_peers PRIVATE Qt6::RemoteObjects)
  target_compile_definitions(bench_transport_peers PRIVATE
    ZT_HAVE_QT_REMOTE_OBJECTS ZT_QTRO_PEER="$<TARGET_FILE:peer_qtro_host>")
  add_dependencies(bench_transport_peers peer_qtro_host)
else()
  message(STATUS "Qt Remote Objects not found: bench_transport_peers runs the raw frame baseline only")
endif()
