# Install rules: libzel-tc-lib.so, its public headers under include/zel-tc-lib (so that a harness
# writes #include <zel_tc_lib.h>), a pkg-config file and a CMake package config with the imported
# target zel-tc-lib::zel-tc-lib. Host builds also install the stand-ins a harness links through,
# zel-vaultd and zel-tc.

include(CMakePackageConfigHelpers)

set(ZEL_INCLUDE_SUBDIR zel-tc-lib)
set(ZEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zel-tc-lib)
set(ZEL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS zel-tc-lib
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${ZEL_INCLUDE_SUBDIR} COMPONENT dev)

# What the public headers include and the library links, as the installed files see it:
# ZEL_CONFIG_* for the CMake config (relative to its prefix variable), ZEL_PC_* for pkg-config.
set(ZEL_CONFIG_INCLUDE_DIRS "\${_zel_prefix}/${CMAKE_INSTALL_INCLUDEDIR}/${ZEL_INCLUDE_SUBDIR}")
set(ZEL_CONFIG_LINK_LIBRARIES)
set(ZEL_PC_CFLAGS)
set(ZEL_PC_LIBS)
if(ZEL_PLATFORM STREQUAL "host")
  set(stand_ins teec qeru_utility_nwd vconf system-info)
  install(TARGETS ${stand_ins} stand_in_store LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT runtime)
  install(FILES
    ${PROJECT_SOURCE_DIR}/platform/teec/include/tee_client_api.h
    ${PROJECT_SOURCE_DIR}/platform/vconf/include/vconf.h
    ${PROJECT_SOURCE_DIR}/platform/sysinfo/include/system_info.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${ZEL_INCLUDE_SUBDIR} COMPONENT dev)
  install(TARGETS zel-vaultd zel-tc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  foreach(name IN LISTS stand_ins)
    list(APPEND ZEL_CONFIG_LINK_LIBRARIES "\${_zel_prefix}/${CMAKE_INSTALL_LIBDIR}/lib${name}.so")
    string(APPEND ZEL_PC_LIBS " -l${name}")
  endforeach()
else()
  foreach(dir IN ITEMS "${ZEL_TEEC_INCLUDE_DIR}" "${ZEL_SYSTEM_INFO_INCLUDE_DIR}")
    list(APPEND ZEL_CONFIG_INCLUDE_DIRS "${dir}")
    if(NOT dir IN_LIST CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
      string(APPEND ZEL_PC_CFLAGS " -I${dir}")
    endif()
  endforeach()
  set(dirs)
  set(names)
  foreach(library IN ITEMS "${ZEL_TEEC_LIBRARY}" "${ZEL_CODEC_LIBRARY}" "${ZEL_VCONF_LIBRARY}"
                           "${ZEL_SYSTEM_INFO_LIBRARY}")
    list(APPEND ZEL_CONFIG_LINK_LIBRARIES "${library}")
    get_filename_component(dir "${library}" DIRECTORY)
    get_filename_component(file "${library}" NAME)
    if(file MATCHES "^lib(.+)\\.so$")
      list(APPEND dirs "${dir}")
      string(APPEND names " -l${CMAKE_MATCH_1}")
    else()
      string(APPEND names " ${library}")
    endif()
  endforeach()
  list(REMOVE_DUPLICATES dirs)
  foreach(dir IN LISTS dirs)
    string(APPEND ZEL_PC_LIBS " -L${dir}")
  endforeach()
  string(APPEND ZEL_PC_LIBS "${names}")
endif()
list(REMOVE_DUPLICATES ZEL_CONFIG_INCLUDE_DIRS)

# Both files find the prefix from where they are, so that the tree can be installed or moved
# anywhere (cmake --install --prefix, DESTDIR).
file(RELATIVE_PATH ZEL_CONFIG_TO_PREFIX "/prefix/${ZEL_CMAKE_DIR}" "/prefix")
file(RELATIVE_PATH ZEL_PC_TO_PREFIX "/prefix/${ZEL_PKGCONFIG_DIR}" "/prefix")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zel-tc-libConfig.cmake.in
               ${CMAKE_BINARY_DIR}/package/zel-tc-libConfig.cmake @ONLY)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/zel-tc-libConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
configure_file(${CMAKE_CURRENT_LIST_DIR}/zel-tc-lib.pc.in ${CMAKE_BINARY_DIR}/package/zel-tc-lib.pc
               @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/package/zel-tc-libConfig.cmake
              ${CMAKE_BINARY_DIR}/package/zel-tc-libConfigVersion.cmake
        DESTINATION ${ZEL_CMAKE_DIR} COMPONENT dev)
install(FILES ${CMAKE_BINARY_DIR}/package/zel-tc-lib.pc DESTINATION ${ZEL_PKGCONFIG_DIR}
        COMPONENT dev)

# Debian packages, one per component: cpack -G DEB in the build folder.
set(CPACK_PACKAGE_NAME libzel-tc-lib)
set(CPACK_PACKAGE_VENDOR "libzel-tc-lib developers")
set(CPACK_PACKAGE_CONTACT "libzel-tc-lib developers <dev@libzel-tc-lib.local>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Test client of the secure vault's trusted application")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzel-tc-lib0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libssl3, libstdc++6")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzel-tc-lib-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libzel-tc-lib0 (= ${PROJECT_VERSION}), libssl-dev")
if(ZEL_PLATFORM STREQUAL "host")
  list(APPEND CPACK_COMPONENTS_ALL tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zel-tc-tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libzel-tc-lib0 (= ${PROJECT_VERSION}), libsqlite3-0")
endif()
include(CPack)
