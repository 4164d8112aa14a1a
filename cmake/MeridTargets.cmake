# merid_add_library(NAME SOURCES ... [DEPS ...])
# One static library per source folder; the folder is the include root.
function(merid_add_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_compile_options(${name} PRIVATE ${MERID_WARNINGS})
    if(ARG_DEPS)
        target_link_libraries(${name} PUBLIC ${ARG_DEPS})
    endif()
    if(ARG_PRIVATE_DEPS)
        target_link_libraries(${name} PRIVATE ${ARG_PRIVATE_DEPS})
    endif()
endfunction()

# merid_add_test(NAME SOURCES ... LIBS ... [LABELS ...] [CORE] [SERIAL] [ENVIRONMENT ...] [TIMEOUT s])
# Natively each call makes one GoogleTest executable whose cases CTest lists.
# CORE marks unit tests that also go into the Windows core test executable.
# SERIAL cases run alone: they drive the shared test display with synthetic
# input, which another test's window could take.
set_property(GLOBAL PROPERTY MERID_CORE_TEST_SOURCES "")
set_property(GLOBAL PROPERTY MERID_CORE_TEST_LIBS "")
function(merid_add_test name)
    cmake_parse_arguments(ARG "CORE;SERIAL" "TIMEOUT" "SOURCES;LIBS;LABELS;ENVIRONMENT" ${ARGN})
    if(MERID_WINDOWS)
        if(ARG_CORE)
            foreach(src IN LISTS ARG_SOURCES)
                get_filename_component(abs ${src} ABSOLUTE)
                set_property(GLOBAL APPEND PROPERTY MERID_CORE_TEST_SOURCES ${abs})
            endforeach()
            set_property(GLOBAL APPEND PROPERTY MERID_CORE_TEST_LIBS ${ARG_LIBS})
        endif()
        return()
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_compile_options(${name} PRIVATE ${MERID_WARNINGS})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} merid_gtest_main)
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 300)
    endif()
    set(labels ${ARG_LABELS})
    if(NOT labels)
        set(labels unit)
    endif()
    # The ThreadSanitizer stage builds only what it runs.
    if("threaded" IN_LIST labels)
        add_dependencies(merid_threaded_tests ${name})
    endif()
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${ARG_TIMEOUT})
    # Discovery flattens list-valued properties, so several labels or
    # variables would be lost; a script run after it sets them on each case.
    set(props_file ${CMAKE_CURRENT_BINARY_DIR}/${name}_properties.cmake)
    file(WRITE ${props_file}
        "foreach(case IN LISTS ${name}_TESTS)\n"
        "    set_tests_properties(\"\${case}\" PROPERTIES LABELS \"${labels}\"")
    if(ARG_ENVIRONMENT)
        file(APPEND ${props_file} " ENVIRONMENT \"${ARG_ENVIRONMENT}\"")
    endif()
    if(ARG_SERIAL)
        file(APPEND ${props_file} " RUN_SERIAL TRUE")
    endif()
    file(APPEND ${props_file} ")\nendforeach()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${props_file})
endfunction()

function(merid_finish_core_tests)
    if(NOT MERID_WINDOWS)
        return()
    endif()
    get_property(sources GLOBAL PROPERTY MERID_CORE_TEST_SOURCES)
    get_property(libs GLOBAL PROPERTY MERID_CORE_TEST_LIBS)
    if(NOT sources)
        return()
    endif()
    list(REMOVE_DUPLICATES libs)
    add_executable(merid_core_tests ${sources})
    target_compile_options(merid_core_tests PRIVATE ${MERID_WARNINGS})
    target_link_libraries(merid_core_tests PRIVATE ${libs} merid_gtest_main)
endfunction()

# merid_add_fuzzer(NAME SOURCES ... LIBS ...): a libFuzzer program fuzz_NAME.
function(merid_add_fuzzer name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(fuzz_${name} ${ARG_SOURCES})
    target_compile_options(fuzz_${name} PRIVATE ${MERID_WARNINGS})
    target_include_directories(fuzz_${name} PRIVATE ${PROJECT_SOURCE_DIR}/fuzz/support)
    target_link_libraries(fuzz_${name} PRIVATE ${ARG_LIBS})
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
endfunction()

# merid_add_benchmark(NAME SOURCES ... LIBS ...): a Google Benchmark program bench_NAME.
function(merid_add_benchmark name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(bench_${name} ${ARG_SOURCES})
    target_compile_options(bench_${name} PRIVATE ${MERID_WARNINGS})
    target_link_libraries(bench_${name} PRIVATE ${ARG_LIBS} benchmark::benchmark)
endfunction()

# merid_window_program(NAME [CONSOLE]): an executable that links the toolkit.
# On Windows it loads the toolkit's DLLs and the shared MinGW runtime beside
# it, and, unless CONSOLE, it is a GUI-subsystem program with the icon.
function(merid_window_program name)
    cmake_parse_arguments(ARG "CONSOLE" "" "" ${ARGN})
    if(NOT MERID_WINDOWS)
        return()
    endif()
    set_target_properties(${name} PROPERTIES MERID_SHARED_RUNTIME ON)
    if(NOT ARG_CONSOLE)
        set_target_properties(${name} PROPERTIES WIN32_EXECUTABLE ON)
        target_link_libraries(${name} PRIVATE merid_windows_icon)
    endif()
endfunction()
