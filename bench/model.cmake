# The chat model's dictionary forms, built with the applications' concrete classes.
zt_add_bench(bench_model ${CMAKE_CURRENT_SOURCE_DIR}/model.cpp LIBS ZintaroModelApps)
