# Installation and the Debian package. `cmake --install` lays the program out
# as a Linux desktop application: the one executable, its menu entry, the
# icon in the hicolor theme, AppStream metadata, a manual page and an example
# udev rule. `cpack -G DEB` (scripts/package.sh, `make package`) wraps the
# same tree with dependencies computed from the executable.
if(NOT TARGET MeridKestalUtility OR MERID_WINDOWS)
    return() # no window in this build, or the Windows one (scripts/windows-package.sh)
endif()

include(GNUInstallDirs)

set(MERID_PACKAGING_SOURCE_DIR ${PROJECT_SOURCE_DIR}/packaging)
set(MERID_PACKAGING_BINARY_DIR ${CMAKE_BINARY_DIR}/packaging)
# The AppStream component id; the menu entry keeps the program's plain name.
set(MERID_APPSTREAM_ID org.meridkestal.meridkestalutility)
set(MERID_DESKTOP_ID meridkestalutility.desktop)
set(MERID_RELEASE_DATE 2026-11-21)
set(MERID_DEBIAN_NAME meridkestalutility)
set(MERID_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/${MERID_DEBIAN_NAME})

# Where the files of the tree are before installation; the tests read these.
set(MERID_DESKTOP_FILE ${MERID_PACKAGING_SOURCE_DIR}/${MERID_DESKTOP_ID})
set(MERID_METAINFO_FILE ${MERID_PACKAGING_BINARY_DIR}/${MERID_APPSTREAM_ID}.metainfo.xml)
set(MERID_MANPAGE_FILE ${MERID_PACKAGING_BINARY_DIR}/MeridKestalUtility.1)
set(MERID_UDEV_RULE_FILE ${MERID_PACKAGING_SOURCE_DIR}/70-meridkestalutility.rules)
set(MERID_ICON_SVG_FILE ${PROJECT_SOURCE_DIR}/resources/icons/hicolor/scalable/apps/meridkestalutility.svg)
set(MERID_ICON_PNG_FILE ${MERID_RESOURCE_STAGE_DIR}/icons/hicolor/256x256/apps/meridkestalutility.png)

configure_file(${MERID_PACKAGING_SOURCE_DIR}/${MERID_APPSTREAM_ID}.metainfo.xml.in ${MERID_METAINFO_FILE} @ONLY)
set(MERID_FLASH_MANPAGE_FILE ${MERID_PACKAGING_BINARY_DIR}/merid-flash.1)
configure_file(${MERID_PACKAGING_SOURCE_DIR}/MeridKestalUtility.1.in ${MERID_MANPAGE_FILE} @ONLY)
configure_file(${MERID_PACKAGING_SOURCE_DIR}/merid-flash.1.in ${MERID_FLASH_MANPAGE_FILE} @ONLY)

# Debian keeps manual pages compressed; -n leaves the name and time out, so
# that the same page gives the same bytes.
find_program(MERID_GZIP gzip REQUIRED)
foreach(page ${MERID_MANPAGE_FILE} ${MERID_FLASH_MANPAGE_FILE})
    add_custom_command(OUTPUT ${page}.gz
        COMMAND ${MERID_GZIP} -9 -n -c ${page} > ${page}.gz
        DEPENDS ${page}
        COMMENT "Compressing the manual page ${page}")
endforeach()
add_custom_target(merid_manpage ALL DEPENDS ${MERID_MANPAGE_FILE}.gz ${MERID_FLASH_MANPAGE_FILE}.gz)

install(TARGETS MeridKestalUtility merid-flash RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${MERID_DESKTOP_FILE} DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${MERID_ICON_SVG_FILE} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
install(FILES ${MERID_ICON_PNG_FILE} DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/256x256/apps)
install(FILES ${MERID_METAINFO_FILE} DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
install(FILES ${MERID_MANPAGE_FILE}.gz ${MERID_FLASH_MANPAGE_FILE}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${MERID_DOC_DIR})
install(FILES ${MERID_UDEV_RULE_FILE} DESTINATION ${MERID_DOC_DIR}/examples)

# --- Debian package ---------------------------------------------------------
set(MERID_PACKAGE_MAINTAINER "MeridKestalUtility maintainers <maintainers@users.noreply.c-seed-50afa605.example>"
    CACHE STRING "Maintainer field of the Debian package")
find_program(MERID_DPKG dpkg)
set(MERID_DEBIAN_ARCH amd64)
if(MERID_DPKG)
    execute_process(COMMAND ${MERID_DPKG} --print-architecture
                    OUTPUT_VARIABLE MERID_DEBIAN_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME MeridKestalUtility)
set(CPACK_PACKAGE_VENDOR "The MeridKestalUtility developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_FILE_NAME MeridKestalUtility-${PROJECT_VERSION}-${MERID_DEBIAN_ARCH})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "firmware loader for a two-processor board over USB serial")
# One paragraph; CMake would take a semicolon for a list separator.
set(CPACK_PACKAGE_DESCRIPTION "MeridKestalUtility loads firmware into a board that carries an STM32 and an
ESP32, through the one USB serial port of the board. The STM32 receives its
image in acknowledged chunks over the board's framed protocol, the ESP32 is
flashed through the chip's ROM serial loader. The program is one file with
its interface, icons and both built-in images inside it. merid-flash does the
same loads from the command line, on several boards at once.")
set(CPACK_DEBIAN_PACKAGE_NAME ${MERID_DEBIAN_NAME})
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${MERID_DEBIAN_ARCH})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${MERID_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
