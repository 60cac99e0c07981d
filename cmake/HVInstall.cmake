# Install rules: headers, libraries, pkg-config files and the CMake package.
include(CMakePackageConfigHelpers)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/RtCore/Headers/RtCore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/RtNetwork/Headers/RtNetwork DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/HalvosCore/Headers/HalvosCore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/generated/HalvosCore/HVVersion.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/HalvosCore)

set(hv_installed_libs)
foreach(lib RtCore RtNetwork HalvosCore)
  if(TARGET ${lib})
    list(APPEND hv_installed_libs ${lib})
  endif()
endforeach()
install(TARGETS ${hv_installed_libs} EXPORT HalvosCoreTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The static libraries, built from the same objects as the shared ones, installed beside them
# under the same names (libHalvosCore.a next to libHalvosCore.so).
foreach(lib ${hv_installed_libs})
  if(TARGET ${lib}_static)
    install(FILES $<TARGET_FILE:${lib}_static> DESTINATION ${CMAKE_INSTALL_LIBDIR} RENAME lib${lib}.a)
  endif()
endforeach()
install(EXPORT HalvosCoreTargets NAMESPACE HalvosCore::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/HalvosCore)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/HalvosCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/HalvosCoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/HalvosCore)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/HalvosCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/HalvosCoreConfig.cmake ${PROJECT_BINARY_DIR}/HalvosCoreConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/HalvosCore)

# The .pc files find their prefix from where they are installed, so that an install moved
# elsewhere (or made with cmake --install --prefix) still works.
file(RELATIVE_PATH HV_PC_PREFIX_FROM_PCDIR ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" HV_PC_PREFIX_FROM_PCDIR "${HV_PC_PREFIX_FROM_PCDIR}")
foreach(pc RtCore RtNetwork HalvosCore)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
