# Windows-only: session control against a recording stand-in for ETW, and the
# file-trace commands with the boot-time entry in the Wine prefix's registry.
plmx_add_test(trace_control_tests
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/Control_test.cpp
    LIBS plmx_trace_control plmx_file_trace plmx_log_test_support)
