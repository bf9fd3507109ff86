set_tests_properties(${taskpool_test_TESTS} ${runlog_test_TESTS} ${chunker_test_TESTS} ${scan_test_TESTS} ${share_test_TESTS}
    ${conversion_test_TESTS} ${stream_conversion_test_TESTS} ${stream_grid_test_TESTS} ${stream_failures_test_TESTS}
    ${crew_test_TESTS} ${program_apart_test_TESTS} ${source_spz_test_TESTS}
    PROPERTIES LABELS "unit;threads")
