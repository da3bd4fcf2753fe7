# The embedding example (examples/embedding) is built against the library and run: it must receive
# the display event and fill its text.
add_executable(kltce_embedding_example ${PROJECT_SOURCE_DIR}/examples/embedding/main.cpp)
target_link_libraries(kltce_embedding_example PRIVATE KLTContextEvaluator kltce_warnings)
add_test(NAME embedding_example COMMAND kltce_embedding_example)
set_tests_properties(embedding_example PROPERTIES LABELS e2e PASS_REGULAR_EXPRESSION "KLTInAppEvent thanks: Thanks, Camille!\n")
