# Windows-only: starting and stopping trace sessions, the boot-time trace
# entry in the registry and the console commands built on them.

# The registry key wrapper, usable by anything that writes the registry.
add_library(plmx_registry STATIC ${CMAKE_CURRENT_LIST_DIR}/RegistryKey_win.cpp)
target_link_libraries(plmx_registry PUBLIC plmx_options advapi32)

add_library(plmx_trace_control STATIC
    ${CMAKE_CURRENT_LIST_DIR}/AutoLogger_win.cpp
    ${CMAKE_CURRENT_LIST_DIR}/Controller_win.cpp
    ${CMAKE_CURRENT_LIST_DIR}/DebugOutput_win.cpp
    ${CMAKE_CURRENT_LIST_DIR}/EtwConsumeApi_win.cpp
    ${CMAKE_CURRENT_LIST_DIR}/EtwControlApi_win.cpp
    ${CMAKE_CURRENT_LIST_DIR}/ProviderLists_win.cpp
    ${CMAKE_CURRENT_LIST_DIR}/SessionProperties_win.cpp)
target_link_libraries(plmx_trace_control PUBLIC plmx_trace plmx_registry advapi32)

# The console commands behind "/traceOn" and "/traceOff"; they report through
# the service's log writer.
add_library(plmx_file_trace STATIC ${CMAKE_CURRENT_LIST_DIR}/FileTrace_win.cpp)
target_link_libraries(plmx_file_trace PUBLIC plmx_trace_control plmx_log)
