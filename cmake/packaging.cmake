# Release packages, built by scripts/package.sh with cpack in each preset's build tree:
#   windows: Quenmark-<version>-windows-x64.zip (Quenmark.exe, README.md, exit-codes.md, json.md,
#            quenmark.schema.json)
#   linux:   quenmark-<version>-linux-amd64.tar.gz, a prefix tree for /usr/local, and
#            quenmark_<version>_amd64.deb, which installs /usr/sbin/quenmark and its man page
# Quenmark.exe also gets its resources here: the version block and the manifest that asks for
# administrator rights.

if(QUENMARK_SANITIZE)
  return()
endif()

set(QUENMARK_PACKAGING_DIR ${CMAKE_CURRENT_LIST_DIR})

set(CPACK_PACKAGE_NAME quenmark)
set(CPACK_PACKAGE_VENDOR Tarnvel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Quenmark developers <dev@quenmark.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "firmware download utility for SATA disk drives")
set(CPACK_PACKAGE_DESCRIPTION
  "Quenmark writes new firmware into SATA disk drives with the ATA command\n\
DOWNLOAD MICROCODE and activates it. It reaches a drive through SCSI\n\
pass-through with SAT ATA PASS-THROUGH(16) (SG_IO on /dev/sdX or /dev/sgN),\n\
refuses drives whose ATA security state forbids an update, and reports the\n\
outcome in its exit code, for scripts that update fleets of machines.")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CHECKSUM SHA256)

if(WIN32)
  if(NOT TARGET Quenmark)
    return()
  endif()
  # The resources belong to the product only; quenmark-sim.exe runs unelevated under Wine.
  enable_language(RC)
  set(QUENMARK_RC ${SRC}/platform/windows/quenmark.rc)
  target_sources(Quenmark PRIVATE ${QUENMARK_RC})
  set_source_files_properties(${QUENMARK_RC} PROPERTIES
    COMPILE_DEFINITIONS "QUENMARK_VERSION_MAJOR=${PROJECT_VERSION_MAJOR};QUENMARK_VERSION_MINOR=${PROJECT_VERSION_MINOR};QUENMARK_VERSION_PATCH=${PROJECT_VERSION_PATCH}"
    OBJECT_DEPENDS ${SRC}/platform/windows/quenmark.exe.manifest)

  install(TARGETS Quenmark RUNTIME DESTINATION .)
  install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/docs/exit-codes.md
    ${CMAKE_SOURCE_DIR}/docs/json.md ${CMAKE_SOURCE_DIR}/docs/quenmark.schema.json DESTINATION .)

  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME Quenmark-${PROJECT_VERSION}-windows-x64)
  # Unpacked where it is needed, the zip gives Quenmark.exe at once, without a folder around it.
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
else()
  if(NOT TARGET quenmark)
    # src/platform/linux has no sources: there is nothing to package (scripts/package.sh says so).
    return()
  endif()
  set(QUENMARK_MAN_PAGE ${CMAKE_BINARY_DIR}/quenmark.8.gz)
  add_custom_command(OUTPUT ${QUENMARK_MAN_PAGE}
    COMMAND gzip -9 -n -c ${CMAKE_SOURCE_DIR}/docs/quenmark.8 > ${QUENMARK_MAN_PAGE}
    DEPENDS ${CMAKE_SOURCE_DIR}/docs/quenmark.8
    COMMENT "Compressing the man page quenmark.8"
    VERBATIM)
  add_custom_target(quenmark-man-page ALL DEPENDS ${QUENMARK_MAN_PAGE})

  install(TARGETS quenmark RUNTIME DESTINATION sbin)
  install(FILES ${QUENMARK_MAN_PAGE} DESTINATION share/man/man8)
  install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/docs/exit-codes.md
    ${CMAKE_SOURCE_DIR}/docs/json.md ${CMAKE_SOURCE_DIR}/docs/quenmark.schema.json
    DESTINATION share/doc/quenmark)

  set(CPACK_GENERATOR "TGZ;DEB")
  # The archive holds sbin/, share/man/ and share/doc/ under one folder:
  #   tar -xzf quenmark-<version>-linux-amd64.tar.gz --strip-components=1 -C /usr/local
  set(CPACK_PACKAGE_FILE_NAME quenmark-${PROJECT_VERSION}-linux-amd64)
  # The Debian package installs under /usr (the DEB generator's own prefix).
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
  set(CPACK_DEBIAN_PACKAGE_SECTION admin)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  # Linked statically: no run-time dependencies.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
endif()

include(CPack)
