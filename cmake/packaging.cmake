# Debian packages built by CPack: a runtime package with the shared library (liboxa<N>, named
# after the SONAME's major version so two majors can be installed side by side) and a
# development package with the headers, the development link, oxa.pc and the CMake package.
# The architecture comes from the compiler, not from the build host, so a cross build for
# armhf makes armhf packages. Dependencies are written out: dpkg-shlibdeps cannot read the
# armhf binaries of a cross build. The minimum versions are those of the newest symbol
# versions the library uses (GLIBC_2.34, GLIBCXX_3.4.30 of g++ 12, GCC_3.5).
set(OXA_DEB_RUNTIME liboxa${PROJECT_VERSION_MAJOR})
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|armv7.*)$" AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(OXA_DEB_ARCH armhf)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(OXA_DEB_ARCH amd64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(OXA_DEB_ARCH arm64)
else()
  set(OXA_DEB_ARCH ${CMAKE_SYSTEM_PROCESSOR})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME liboxa)
set(CPACK_PACKAGE_VENDOR "liboxa developers")
set(CPACK_PACKAGE_CONTACT "liboxa developers <liboxa@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Portable runtime library for embedded Linux")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${OXA_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)   # name_version_arch.deb
set(CPACK_STRIP_FILES ON)                 # the build tree keeps the debugging information

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${OXA_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), libuuid1 (>= 2.16)")
# A shlibs file for packages built against this one; ldconfig runs on install and removal.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME liboxa-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${OXA_DEB_RUNTIME} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Headers, the development link, pkg-config and CMake files.")
# Installed into a multiarch library folder (lib/<triplet>, as `make package` builds), the
# packages are marked to install beside the same packages of other architectures.
if(CMAKE_INSTALL_LIBDIR MATCHES "^lib/[^/]+-linux-[^/]+$")
  set(CPACK_OXA_MULTIARCH ON)
endif()
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/deb-finish.cmake)
include(CPack)
