# Windows-only: session control against a recording stand-in for ETW, boot-time
# entries against the Wine prefix's registry, and the file-trace commands. The
# boot-entry and file-trace tests share the one fixed boot-entry key: one
# executable, run serially.
plmx_add_test(trace_control_tests
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/Controller_test.cpp
            ${CMAKE_CURRENT_LIST_DIR}/AutoLogger_test.cpp
            ${CMAKE_CURRENT_LIST_DIR}/FileTrace_test.cpp
    LIBS plmx_trace_control plmx_file_trace plmx_log_test_support)
