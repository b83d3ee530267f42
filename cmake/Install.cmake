# What `cmake --install` puts where, the man pages, the version header, and the Debian package
# (CPack's DEB generator, driven by scripts/package.sh). docs/installed-files.md lists every file.
#
# Included at the end of the top-level CMakeLists.txt, once the programs are defined. Paths that
# udev, systemd and kmod read are under lib/ of the prefix; they read both /usr/lib and
# /usr/local/lib, so the default prefix works as well as -DCMAKE_INSTALL_PREFIX=/usr.
include(GNUInstallDirs)

set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(IRFRAME_MAINTAINER "irframe maintainers <maintainers@users.noreply.c-seed-8c76168e.example>"
    CACHE STRING "Maintainer named in the Debian package")

# --- One version: project(VERSION) above, seen by the programs through a generated header.
configure_file(cmake/IrframeVersion.h.in ${CMAKE_BINARY_DIR}/generated/IrframeVersion.h @ONLY)
add_library(irframe_version INTERFACE)
target_include_directories(irframe_version INTERFACE ${CMAKE_BINARY_DIR}/generated)

# irframed's options, --version among them, are parsed in the agent library.
target_link_libraries(irframe_config PRIVATE irframe_version)
set(IRFRAME_PROGRAMS)
foreach(program irframed irframectl irframe-calibrate irframe-settings)
  if(TARGET ${program})
    target_link_libraries(${program} PRIVATE irframe_version)
    list(APPEND IRFRAME_PROGRAMS ${program})
  endif()
endforeach()
install(TARGETS ${IRFRAME_PROGRAMS})
if(IRFRAME_TESTS AND TARGET irframed)
  string(REPLACE "." "\\." version_pattern ${PROJECT_VERSION})
  add_test(NAME IrframedVersion COMMAND irframed --version)
  set_tests_properties(IrframedVersion PROPERTIES
                       PASS_REGULAR_EXPRESSION "^irframed ${version_pattern}\n$")
endif()

# The packaging's top changelog entry should name this version (scripts/package.sh insists).
file(STRINGS packaging/changelog changelog_top LIMIT_COUNT 1)
if(NOT changelog_top MATCHES "^irframe \\(${PROJECT_VERSION}\\) ")
  message(WARNING "packaging/changelog does not start with an entry for ${PROJECT_VERSION}")
endif()

# --- Man pages, from scdoc sources; the version goes into their footer.
set(man_sources packaging/man/irframed.1.scd packaging/man/irframe.toml.5.scd)
if(TARGET irframectl)
  list(APPEND man_sources packaging/man/irframectl.1.scd)
endif()
if(TARGET irframe-calibrate)
  list(APPEND man_sources packaging/man/irframe-calibrate.1.scd)
endif()
if(TARGET irframe-settings)
  list(APPEND man_sources packaging/man/irframe-settings.1.scd)
endif()
find_program(SCDOC_EXECUTABLE scdoc)
if(SCDOC_EXECUTABLE)
  set(man_pages)
  foreach(source IN LISTS man_sources)
    get_filename_component(page ${source} NAME_WLE)  # irframed.1
    string(REGEX MATCH "[0-9]$" section ${page})
    set(configured ${CMAKE_BINARY_DIR}/man/${page}.scd)
    set(out ${CMAKE_BINARY_DIR}/man/${page})
    configure_file(${source} ${configured} @ONLY)
    # The plain page for `man -l` from the build tree, and the compressed one that is installed.
    add_custom_command(
      OUTPUT ${out} ${out}.gz
      COMMAND sh -c "\"$0\" < \"$1\" > \"$2\" && gzip -9n -c \"$2\" > \"$2.gz\""
              ${SCDOC_EXECUTABLE} ${configured} ${out}
      DEPENDS ${configured}
      COMMENT "Man page ${page}"
      VERBATIM)
    list(APPEND man_pages ${out} ${out}.gz)
    install(FILES ${out}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
  add_custom_target(man ALL DEPENDS ${man_pages})
else()
  message(STATUS "scdoc not found: the man pages are neither built nor installed")
endif()

# --- System integration: device access, the user unit, the uinput module.
install(FILES packaging/70-irframe.rules DESTINATION lib/udev/rules.d)
install(FILES packaging/modules-load.d/irframe.conf DESTINATION lib/modules-load.d)
# The unit in the source tree names the package's paths; an install elsewhere gets its own.
file(READ packaging/irframed.service unit)
string(REPLACE "ExecStart=/usr/bin/irframed" "ExecStart=${CMAKE_INSTALL_FULL_BINDIR}/irframed"
       unit "${unit}")
string(REPLACE "file:///usr/share/doc/irframe" "file://${CMAKE_INSTALL_FULL_DOCDIR}"
       unit "${unit}")
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/packaging/irframed.service CONTENT "${unit}" @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/irframed.service)
install(FILES ${CMAKE_BINARY_DIR}/packaging/irframed.service DESTINATION lib/systemd/user)

# The settings window's menu entry and icon.
if(TARGET irframe-settings)
  install(FILES packaging/org.irframe.Settings.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
  install(FILES packaging/org.irframe.Settings.svg
          DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
endif()

# The example configuration: /etc/irframe with the prefix /usr, <prefix>/etc/irframe otherwise.
install(FILES packaging/irframe.toml DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/irframe)

# --- Documentation, laid out as in the source tree so that the pages' links hold.
add_custom_command(
  OUTPUT ${CMAKE_BINARY_DIR}/packaging/changelog.gz
  COMMAND sh -c "gzip -9n -c \"$0\" > \"$1\"" ${CMAKE_CURRENT_SOURCE_DIR}/packaging/changelog
          ${CMAKE_BINARY_DIR}/packaging/changelog.gz
  DEPENDS packaging/changelog
  VERBATIM)
add_custom_target(changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/packaging/changelog.gz)
file(GLOB doc_pages CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/docs/*.md
     ${CMAKE_CURRENT_SOURCE_DIR}/docs/*.png)
file(GLOB example_scripts CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/examples/*.gesture)
install(FILES README.md packaging/copyright ${CMAKE_BINARY_DIR}/packaging/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${doc_pages} DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
install(FILES ${example_scripts} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# --- The Debian package: irframe_<version>_<arch>.deb.
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/packaging/deb/conffiles
     CONTENT "${CMAKE_INSTALL_FULL_SYSCONFDIR}/irframe/irframe.toml\n")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME irframe)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${IRFRAME_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "gesture driver for USB infrared multi-touch frames")
# The extended description as dpkg shows it: lines of at most 80 columns.
string(CONCAT CPACK_PACKAGE_DESCRIPTION
    "irframed serves USB infrared touch frames (touch overlays on displays and\n"
    "projection walls; USB ids AAEC:C020, AAEC:C021 and 202E:0006) as a service of\n"
    "the logged-in user. It reads the calibration stored in each frame, tracks the\n"
    "contacts, recognises one- to four-finger gestures and posts mouse, shortcut\n"
    "and scroll events through uinput, so that every application on X11 or Wayland\n"
    "is driven by touch.\n"
    ".\n"
    "The package holds the driver, the frame tool, an on-screen calibrator, a\n"
    "settings window with a live view of the touches, udev\n"
    "rules that give the logged-in user access to the frames and to uinput, a\n"
    "systemd user unit, man pages and example gesture scripts.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The screen size comes from libX11 and libXrandr, loaded at run time when present.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libx11-6, libxrandr2")
# irframectl map writes each desktop's setting with the desktop's own program.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "libglib2.0-bin, libkf5config-bin, xinput")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/deb/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/deb/postrm
    ${CMAKE_BINARY_DIR}/packaging/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
