# Debian packages of an install (./hv package runs cpack on the "package" preset's build):
#   libhalvoscore0      the three shared libraries (libRtCore.so.0, libRtNetwork.so.0,
#                       libHalvosCore.so.0), named after their common SONAME version;
#   libhalvoscore-dev   headers, the libX.so links, static libraries, pkg-config and CMake files;
#   halvoscore-tools    hvcall and hvserve with their man pages.
# The install components "runtime", "dev" and "tools" (cmake/HVInstall.cmake) make the three.
# dpkg-shlibdeps finds what the binaries need of Debian's libraries; what they need of each
# other (libhalvoscore0 itself) is said here, at the exact version built together.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME halvoscore)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "HalvosCore developers <halvoscore@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps runs in each package's staging folder; the tools' own libraries are found in
# the runtime package's, beside it (and left out of its answer: they are in no installed package).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ../runtime/usr/${CMAKE_INSTALL_LIBDIR})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Debian's man pages are gzip-compressed: done to the staged files just before packing.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/HVCompressManPages.cmake)

set(hv_deb_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(hv_runtime_package libhalvoscore${PROJECT_VERSION_MAJOR})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${hv_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The shlibs control file tells dpkg-shlibdeps of programs built on these libraries which
# package to depend on.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# Descriptions: the summary line, then the text (cpack indents it).
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "XML-RPC and SOAP 1.1 over HTTP: shared libraries
HalvosCore calls remote procedures over HTTP in XML-RPC and SOAP 1.1, synchronously or on a
run loop, and turns received calls into dictionaries for a server. This package holds the
shared libraries libHalvosCore, libRtNetwork (HTTP messages and read streams) and libRtCore
(values, strings, property lists, XML trees, the run loop).")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libhalvoscore-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The .pc files' Requires.private and the static libraries need these packages' headers and
# libraries.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${hv_runtime_package} (= ${hv_deb_version}), libexpat1-dev, libicu-dev, libcurl4-openssl-dev | libcurl-dev, libmicrohttpd-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "pkg-config, cmake")
set(CPACK_DEBIAN_DEV_DESCRIPTION "XML-RPC and SOAP 1.1 over HTTP: development files
Headers, the static libraries, pkg-config files (HalvosCore, RtNetwork, RtCore) and the CMake
package (find_package(HalvosCore)) for building programs on HalvosCore.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME halvoscore-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${hv_runtime_package} (= ${hv_deb_version})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "XML-RPC and SOAP 1.1 over HTTP: command-line tools
hvcall calls one method of an XML-RPC or SOAP endpoint with JSON parameters and prints the
result as JSON; hvserve answers XML-RPC and SOAP calls with a few example methods.")

include(CPack)
