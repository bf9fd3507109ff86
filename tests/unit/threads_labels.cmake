set_tests_properties(${taskpool_test_TESTS} ${runlog_test_TESTS} ${chunker_test_TESTS} ${scan_test_TESTS} ${share_test_TESTS}
    ${conversion_test_TESTS}
    PROPERTIES LABELS "unit;threads")
