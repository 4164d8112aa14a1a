# Build switches shared by every folder.

if(CMAKE_SYSTEM_NAME STREQUAL "Windows")
    set(MERID_WINDOWS ON)
else()
    set(MERID_WINDOWS OFF)
endif()

# The window needs gtkmm. The Windows cross-build takes it from the toolkit
# that scripts/windows-gtk.sh builds for MinGW-w64, when given its prefix;
# pkg-config then looks there and in the compiler's own folder only.
set(MERID_WIN_GTK_PREFIX "" CACHE PATH "GTK 3 and gtkmm 3 built for MinGW-w64 (the prefix scripts/windows-gtk.sh prints)")
set(_merid_gui_default ON)
if(MERID_WINDOWS)
    if(MERID_WIN_GTK_PREFIX AND EXISTS "${MERID_WIN_GTK_PREFIX}/lib/pkgconfig/gtkmm-3.0.pc")
        set(ENV{PKG_CONFIG_LIBDIR}
            "${MERID_WIN_GTK_PREFIX}/lib/pkgconfig:${MERID_WIN_GTK_PREFIX}/share/pkgconfig:${CMAKE_FIND_ROOT_PATH}/lib/pkgconfig")
        set(ENV{PKG_CONFIG_PATH} "")
        # The libraries pkg-config names are looked up below the roots only.
        list(APPEND CMAKE_FIND_ROOT_PATH "${MERID_WIN_GTK_PREFIX}")
    else()
        set(_merid_gui_default OFF)
    endif()
endif()
option(MERID_WITH_GUI "Build the window, the widgets and the program" ${_merid_gui_default})
option(MERID_BUILD_TESTS "Build the tests" ON)
option(MERID_BUILD_BENCH "Build the benchmarks" OFF)
option(MERID_BUILD_TOOLS "Build the device simulator" ON)
option(MERID_BUILD_FUZZ "Build the libFuzzer targets (clang only)" OFF)
set(MERID_SANITIZE "" CACHE STRING "Sanitizer build: empty, address (with undefined) or thread")
set_property(CACHE MERID_SANITIZE PROPERTY STRINGS "" address thread)

if(MERID_WINDOWS)
    set(MERID_BUILD_TOOLS OFF CACHE BOOL "" FORCE)
    set(MERID_BUILD_BENCH OFF CACHE BOOL "" FORCE)
endif()

set(MERID_WARNINGS -Wall -Wextra -Wpedantic)

if(MERID_BUILD_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                        -fsanitize-coverage-ignorelist=${PROJECT_SOURCE_DIR}/fuzz/coverage-ignore.txt)
    add_link_options(-fsanitize=address,undefined)
endif()

if(MERID_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
elseif(MERID_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(NOT MERID_SANITIZE STREQUAL "")
    message(FATAL_ERROR "MERID_SANITIZE must be empty, address or thread")
endif()

# Optimized builds without a sanitizer carry the usual hardening, so that an
# overrun of a buffer aborts instead of running on. MinGW's checks live in
# libssp, linked statically so that no extra DLL is needed.
if(MERID_SANITIZE STREQUAL "" AND NOT MERID_BUILD_FUZZ)
    set(_merid_optimized "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
    add_compile_options("$<${_merid_optimized}:-fstack-protector-strong>")
    add_compile_definitions("$<${_merid_optimized}:_FORTIFY_SOURCE=3>")
    # The checks' library goes last on every link line, as an archive.
    if(MERID_WINDOWS AND CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$")
        string(APPEND CMAKE_C_STANDARD_LIBRARIES " -l:libssp.a")
        string(APPEND CMAKE_CXX_STANDARD_LIBRARIES " -l:libssp.a")
    endif()
endif()

if(MERID_WINDOWS)
    # Each executable runs without the MinGW runtime DLLs beside it, except
    # those that link the toolkit's DLLs (merid_window_program), whose import
    # libraries a static link cannot take.
    set(_merid_static "$<NOT:$<BOOL:$<TARGET_PROPERTY:MERID_SHARED_RUNTIME>>>")
    add_link_options("$<${_merid_static}:-static>" "$<${_merid_static}:-static-libgcc>"
                     "$<${_merid_static}:-static-libstdc++>")
    add_compile_definitions(_WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
    enable_language(RC)
endif()

find_package(Threads REQUIRED)
find_package(PkgConfig)
if(MERID_WITH_GUI)
    pkg_check_modules(GTKMM REQUIRED IMPORTED_TARGET gtkmm-3.0)
endif()
