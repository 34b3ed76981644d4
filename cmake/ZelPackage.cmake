# Install rules: libzel-tc-lib.so, its public headers under include/zel-tc-lib (so that a harness
# writes #include <zel_tc_lib.h>), a pkg-config file, a CMake package config with the imported
# target zel-tc-lib::zel-tc-lib, and zel-tc. Host builds also install the host TEE: zel-vaultd and
# the stand-ins of the platform libraries, in a private folder (ZEL_PRIVATE_LIBDIR) that only this
# project's programs and library reach, through $ORIGIN-relative RUNPATHs, so that no generic
# libteec.so ever stands in the library path. Components, one per Debian package: runtime, dev,
# tools, host-tee; and platform, which installs the stand-ins as a device platform lays out its
# libraries and headers (for testing the device build against them; never packaged).

include(CMakePackageConfigHelpers)

set(ZEL_INCLUDE_SUBDIR zel-tc-lib)
set(ZEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zel-tc-lib)
set(ZEL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(ZEL_PRIVATE_LIBDIR ${CMAKE_INSTALL_LIBDIR}/zel-tc-lib)

# RUNPATHs from each installed file to what it links: the library reaches the private folder
# beside it; programs reach the library folder (for a tree installed outside the default search
# path) and the private folder.
file(RELATIVE_PATH bin_to_lib "/p/${CMAKE_INSTALL_BINDIR}" "/p/${CMAKE_INSTALL_LIBDIR}")
set(library_rpath "")
set(program_rpath "$ORIGIN/${bin_to_lib}")
if(ZEL_PLATFORM STREQUAL "host")
  set(library_rpath "$ORIGIN/zel-tc-lib")
  string(APPEND program_rpath ":$ORIGIN/${bin_to_lib}/zel-tc-lib")
endif()
set_target_properties(zel-tc-lib PROPERTIES INSTALL_RPATH "${library_rpath}")
set_target_properties(zel-tc PROPERTIES INSTALL_RPATH "${program_rpath}")

install(TARGETS zel-tc-lib
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${ZEL_INCLUDE_SUBDIR} COMPONENT dev)
install(TARGETS zel-tc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/docs/zel-tc.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/tools/zel_tc/completion.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME zel-tc
        COMPONENT tools)

# What the public headers include and the library links, as the installed files see it:
# ZEL_CONFIG_* for the CMake config (relative to its prefix variable), ZEL_PC_* for pkg-config.
set(ZEL_CONFIG_INCLUDE_DIRS "\${_zel_prefix}/${CMAKE_INSTALL_INCLUDEDIR}/${ZEL_INCLUDE_SUBDIR}")
set(ZEL_CONFIG_LINK_LIBRARIES)
set(ZEL_PC_CFLAGS)
set(ZEL_PC_LIBS)
if(ZEL_PLATFORM STREQUAL "host")
  set(stand_ins teec qeru_utility_nwd vconf system-info stand_in_store)
  set_target_properties(${stand_ins} PROPERTIES INSTALL_RPATH "$ORIGIN")
  set_target_properties(zel-vaultd PROPERTIES INSTALL_RPATH "${program_rpath}")
  install(TARGETS ${stand_ins} LIBRARY DESTINATION ${ZEL_PRIVATE_LIBDIR} COMPONENT host-tee)
  install(TARGETS zel-vaultd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host-tee)
  # The TAs where the daemon looks for them: relative to itself, as in the build tree.
  install(TARGETS ta_zel_test ta_zel_test_a LIBRARY DESTINATION ${ZEL_PRIVATE_LIBDIR}/ta
          COMPONENT host-tee)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/zel-vaultd.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
          COMPONENT host-tee)
  set(stand_in_headers
    ${PROJECT_SOURCE_DIR}/platform/teec/include/tee_client_api.h
    ${PROJECT_SOURCE_DIR}/platform/vconf/include/vconf.h
    ${PROJECT_SOURCE_DIR}/platform/sysinfo/include/system_info.h)
  install(FILES ${stand_in_headers}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${ZEL_INCLUDE_SUBDIR} COMPONENT dev)
  # A harness compiles against the stand-ins' headers and links the library alone: the library
  # finds the stand-ins through its own RUNPATH.
  # The platform tree: what ZEL_PLATFORM=device looks for, where a platform's -dev packages put it.
  install(TARGETS ${stand_ins} LIBRARY DESTINATION lib COMPONENT platform EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/platform/teec/include/tee_client_api.h
          DESTINATION include COMPONENT platform EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/platform/wsm/qeru_wsm.h
                ${PROJECT_SOURCE_DIR}/platform/wsm/wsm_encoding.h
                ${PROJECT_SOURCE_DIR}/platform/wsm/wsm_core.h
          DESTINATION include/qeru COMPONENT platform EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/platform/vconf/include/vconf.h
          DESTINATION include/vconf COMPONENT platform EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/platform/sysinfo/include/system_info.h
          DESTINATION include/system COMPONENT platform EXCLUDE_FROM_ALL)
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
