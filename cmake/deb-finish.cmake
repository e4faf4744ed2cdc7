# Run by CPack after it has built the Debian packages: finishes what CPack has no setting for.
# Each package is unpacked, changed and packed again:
# - "Multi-Arch: same" when the library folder is the multiarch one (CPACK_OXA_MULTIARCH), so
#   the amd64 and armhf packages of one version install side by side on a cross-compiling host;
# - ldconfig through a dpkg trigger instead of CPack's postinst/postrm scripts, which only call
#   it (one ldconfig run for a whole installation, not one per package);
# - the changelog Debian expects of a native package, in usr/share/doc/<package>/.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${tree}/DEBIAN/control control)
  string(REGEX MATCH "Package: ([^\n]*)" unused "${control}")
  set(package ${CMAKE_MATCH_1})

  if(CPACK_OXA_MULTIARCH AND NOT control MATCHES "Multi-Arch:")
    string(REGEX REPLACE "(Architecture: [^\n]*\n)" "\\1Multi-Arch: same\n" control "${control}")
    file(WRITE ${tree}/DEBIAN/control "${control}")
  endif()

  if(EXISTS ${tree}/DEBIAN/postinst)
    file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
    file(WRITE ${tree}/DEBIAN/triggers "activate-noawait ldconfig\n")
  endif()

  set(doc ${tree}/usr/share/doc/${package})
  file(MAKE_DIRECTORY ${doc})
  file(WRITE ${doc}/changelog "${package} (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium\n\n"
       "  * Release ${CPACK_PACKAGE_VERSION}.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  execute_process(COMMAND gzip -9n ${doc}/changelog COMMAND_ERROR_IS_FATAL ANY)
  file(RELATIVE_PATH member ${tree} ${doc}/changelog.gz)
  file(MD5 ${doc}/changelog.gz sum)
  file(APPEND ${tree}/DEBIAN/md5sums "${sum}  ${member}\n")

  execute_process(COMMAND dpkg-deb --root-owner-group -b ${tree} ${deb}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
