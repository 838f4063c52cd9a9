# Shared compile settings and helpers for product libraries and tests.

add_library(plmx_options INTERFACE)
target_compile_options(plmx_options INTERFACE -Wall -Wextra -Werror)
target_include_directories(plmx_options INTERFACE ${PROJECT_SOURCE_DIR})

if(WIN32)
    target_compile_definitions(plmx_options INTERFACE
        UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0A00 WINVER=0x0A00)
    set(PLMX_THREAD_SANITIZER OFF)
else()
    set(PLMX_THREAD_SANITIZER OFF)
    if("thread" IN_LIST PLMX_SANITIZE)
        set(PLMX_THREAD_SANITIZER ON)
    endif()
    if(PLMX_SANITIZE)
        list(JOIN PLMX_SANITIZE "," _plmx_sanitizers)
        target_compile_options(plmx_options INTERFACE
            -fsanitize=${_plmx_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
        target_link_options(plmx_options INTERFACE -fsanitize=${_plmx_sanitizers})
    endif()
endif()

# GoogleTest: the system package natively, Debian's sources built by the
# cross compiler for Windows.
if(BUILD_TESTING)
    if(WIN32)
        set(gtest_force_shared_crt OFF CACHE BOOL "" FORCE)
        set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
        set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
        add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
    else()
        find_package(GTest REQUIRED)
    endif()
    include(GoogleTest)
endif()

# plmx_add_test(<name> SOURCES ... [LIBS ...] [CONCURRENCY])
# CONCURRENCY marks tests that also run under ThreadSanitizer; a
# ThreadSanitizer build builds only those. Natively every case is a ctest
# test; a cross-compiled executable is one ctest test run by the emulator.
function(plmx_add_test name)
    cmake_parse_arguments(ARG "CONCURRENCY" "" "SOURCES;LIBS" ${ARGN})
    if(PLMX_THREAD_SANITIZER AND NOT ARG_CONCURRENCY)
        return()
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main plmx_options)
    if(CMAKE_CROSSCOMPILING)
        # Each start of a Wine process costs seconds: one test per executable,
        # whose own output names any failing case.
        add_test(NAME ${name} COMMAND ${name})
        set_tests_properties(${name} PROPERTIES TIMEOUT 600)
    else()
        gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120
                             PROPERTIES TIMEOUT 300)
    endif()
endfunction()
