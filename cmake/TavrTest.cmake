# tavr_test(NAME name COMMAND program args... [VIEW] [SERIAL] [TIMEOUT seconds] [CONFIGURATION name])
#
# Registers one test program. It runs through scripts/one-test, which keeps a JUnit file of its cases in
# <build>/results/ (GoogleTest and node write their own; any other program counts as one case: exit status 0
# passed, 77 skipped with its last line as the reason, else failed). VIEW: inside a fresh private root view, as
# root there, with this build installed in it (scripts/view). SERIAL: not beside other tests.
# CONFIGURATION: only with `ctest -C name`.
include(ProcessorCount)
find_package(GTest REQUIRED)

set(TAVR_INSTALL_ROOT ${CMAKE_BINARY_DIR}/root)   # scripts/build installs into it

function(tavr_test)
    cmake_parse_arguments(PARSE_ARGV 0 T "VIEW;SERIAL" "NAME;TIMEOUT;CONFIGURATION" "COMMAND;LABELS")
    set(options)
    if(T_VIEW)
        list(APPEND options --view ${TAVR_INSTALL_ROOT})
    endif()
    add_test(NAME ${T_NAME} CONFIGURATIONS ${T_CONFIGURATION} COMMAND ${PROJECT_SOURCE_DIR}/scripts/one-test ${T_NAME}
        --results ${CMAKE_BINARY_DIR}/results ${options} -- ${T_COMMAND})
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 300)
    endif()
    set_tests_properties(${T_NAME} PROPERTIES TIMEOUT ${T_TIMEOUT} SKIP_RETURN_CODE 77 LABELS "${T_LABELS}")
    if(T_SERIAL)
        set_tests_properties(${T_NAME} PROPERTIES RUN_SERIAL ON)
    endif()
endfunction()
