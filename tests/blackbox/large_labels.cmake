set_tests_properties(${large_blackbox_tests} PROPERTIES LABELS "blackbox;large")
