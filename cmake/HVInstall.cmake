# Install rules: headers, libraries, pkg-config files, the CMake package and the man pages.
# Each rule names the Debian package it goes into (cmake/HVPackage.cmake): "runtime" the
# shared libraries, "dev" what a program needs to build against them, "tools" hvcall and
# hvserve with their man pages.
include(CMakePackageConfigHelpers)

# Every public header, C or C++, whatever lands in the Headers folders.
foreach(product RtCore RtNetwork HalvosCore)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${product}/Headers/${product} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
          FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/generated/HalvosCore/HVVersion.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/HalvosCore COMPONENT dev)

set(hv_installed_libs)
foreach(lib RtCore RtNetwork HalvosCore)
  if(TARGET ${lib})
    list(APPEND hv_installed_libs ${lib})
  endif()
endforeach()
# libX.so.0 and libX.so.0.1.0 go into the runtime package, the libX.so link into dev.
install(TARGETS ${hv_installed_libs} EXPORT HalvosCoreTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The static libraries, built from the same objects as the shared ones, installed beside them
# under the same names (libHalvosCore.a next to libHalvosCore.so).
foreach(lib ${hv_installed_libs})
  if(TARGET ${lib}_static)
    install(FILES $<TARGET_FILE:${lib}_static> DESTINATION ${CMAKE_INSTALL_LIBDIR} RENAME lib${lib}.a
            COMPONENT dev)
  endif()
endforeach()
install(EXPORT HalvosCoreTargets NAMESPACE HalvosCore::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/HalvosCore COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/HalvosCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/HalvosCoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/HalvosCore)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/HalvosCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/HalvosCoreConfig.cmake ${PROJECT_BINARY_DIR}/HalvosCoreConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/HalvosCore COMPONENT dev)

# The .pc files find their prefix from where they are installed, so that an install moved
# elsewhere (or made with cmake --install --prefix) still works.
file(RELATIVE_PATH HV_PC_PREFIX_FROM_PCDIR ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" HV_PC_PREFIX_FROM_PCDIR "${HV_PC_PREFIX_FROM_PCDIR}")
foreach(pc RtCore RtNetwork HalvosCore)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

# The tools' man pages, written by hand in docs/man (share/man/man1/hvcall.1, ...); the
# packages carry them compressed (cmake/HVCompressManPages.cmake).
if(TARGET hvcall)
  file(GLOB hv_man_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.1)
  install(FILES ${hv_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()
