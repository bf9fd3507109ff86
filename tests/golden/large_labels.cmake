set_tests_properties(${large_golden_tests} ${large_stream_golden_tests} ${large_relations_tests} PROPERTIES LABELS "golden;large")
