# bench_model_join: joining a large channel and mirroring a whole model, two
# processes over loopback, with Qt Remote Objects replicating a list model of
# the same size in the same run (when the module is installed).
find_package(Qt6 6.4 QUIET COMPONENTS RemoteObjects)
# The helper processes are defined with the other helpers, in
# bench/peers/zintaro and bench/peers/qtro (added by transport_peers.cmake).
zt_add_bench(bench_model_join ${CMAKE_CURRENT_SOURCE_DIR}/model_join.cpp LIBS zt_bench_model_root)
target_include_directories(bench_model_join PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(bench_model_join PRIVATE ZT_MODEL_AGENT_PEER="$<TARGET_FILE:peer_zintaro_model_agent>")
add_dependencies(bench_model_join peer_zintaro_model_agent)
if(TARGET Qt6::RemoteObjects)
  target_link_libraries(bench_model_join PRIVATE Qt6::RemoteObjects)
  target_compile_definitions(bench_model_join PRIVATE
    ZT_HAVE_QT_REMOTE_OBJECTS ZT_QTRO_MODEL_PEER="$<TARGET_FILE:peer_qtro_model_host>")
  add_dependencies(bench_model_join peer_qtro_model_host)
endif()
