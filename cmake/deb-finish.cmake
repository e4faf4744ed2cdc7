# Run by CPack after it has built the Debian packages of a multiarch build (library folder
# lib/<triplet>): adds "Multi-Arch: same" to each package's control file, so the amd64 and the
# armhf packages of one version install side by side (a cross-compiling host keeps both). CPack
# has no setting for this field, so each package is unpacked, marked and packed again.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${tree}/DEBIAN/control control)
  if(NOT control MATCHES "Multi-Arch:")
    string(REGEX REPLACE "(Architecture: [^\n]*\n)" "\\1Multi-Arch: same\n" control "${control}")
    file(WRITE ${tree}/DEBIAN/control "${control}")
  endif()
  execute_process(COMMAND dpkg-deb --root-owner-group -b ${tree} ${deb}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
