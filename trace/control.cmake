# Windows-only: starting and stopping trace sessions, the boot-time trace
# entry in the registry and the console commands built on them.

# The registry key wrapper, usable by anything that writes the registry.
add_library(plmx_registry STATIC ${CMAKE_CURRENT_LIST_DIR}/RegistryKey_win.cpp)
target_link_libraries(plmx_registry PUBLIC plmx_options advapi32)
