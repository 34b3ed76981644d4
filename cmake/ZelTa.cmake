# The GlobalPlatform TAs of ta/ built for the host TEE: each TA folder (laid out for OP-TEE's TA dev
# kit) becomes <uuid>.so, its sources read from its own Makefile and sub.mk, so that the list the
# dev kit builds is the list built here. The TA sees the host's Internal Core API headers; the
# daemon that loads it provides the functions.

set(ZEL_VAULT_DIR ${PROJECT_SOURCE_DIR}/vault)
# Where programs find the TAs: relative to the program, the same in the build tree and installed.
file(RELATIVE_PATH zel_bin_to_lib "/p/${CMAKE_INSTALL_BINDIR}" "/p/${CMAKE_INSTALL_LIBDIR}")
set(ZEL_TA_FOLDER_FROM_PROGRAM "${zel_bin_to_lib}/zel-tc-lib/ta")
set(ZEL_TA_BUILD_FOLDER "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${ZEL_TA_FOLDER_FROM_PROGRAM}")

# zel_gp_ta(FOLDER [OUTPUT_DIRECTORY DIR]): the TA in FOLDER as a module; its target is
# ta_<folder name>, its file <uuid>.so in DIR (default: the build's TA folder).
function(zel_gp_ta folder)
  cmake_parse_arguments(ARG "" "OUTPUT_DIRECTORY" "" ${ARGN})
  if(NOT ARG_OUTPUT_DIRECTORY)
    set(ARG_OUTPUT_DIRECTORY ${ZEL_TA_BUILD_FOLDER})
  endif()
  get_filename_component(name ${folder} NAME)
  file(STRINGS ${folder}/Makefile binary REGEX "^BINARY[ \t]*=")
  string(REGEX REPLACE "^BINARY[ \t]*=[ \t]*" "" uuid "${binary}")
  # srcs-y name files of the folder; srcs_ext-y files under srcs_ext_base-y (../.. from a TA).
  file(STRINGS ${folder}/sub.mk lines)
  set(sources)
  foreach(line IN LISTS lines)
    if(line MATCHES "^(srcs|srcs_ext)-y[ \t]*\\+?=(.*)$")
      set(kind ${CMAKE_MATCH_1})
      string(REGEX REPLACE "[ \t]+" ";" files "${CMAKE_MATCH_2}")
      foreach(file IN LISTS files)
        if(file STREQUAL "")
          continue()
        elseif(kind STREQUAL "srcs")
          list(APPEND sources ${folder}/${file})
        else()
          list(APPEND sources ${folder}/../../${file})
        endif()
      endforeach()
    endif()
  endforeach()
  add_library(ta_${name} MODULE ${sources} ${ZEL_VAULT_DIR}/ta_head.c)
  target_include_directories(ta_${name} PRIVATE ${folder} ${PROJECT_SOURCE_DIR}/ta/common
    ${PROJECT_SOURCE_DIR}/platform/wsm ${PROJECT_SOURCE_DIR}/src/interface ${ZEL_VAULT_DIR}
    ${ZEL_VAULT_DIR}/tee/include)
  set_target_properties(ta_${name} PROPERTIES OUTPUT_NAME ${uuid} PREFIX "" SUFFIX ".so"
    LIBRARY_OUTPUT_DIRECTORY ${ARG_OUTPUT_DIRECTORY})
  # Only the entry points and the header are seen from outside: every TA has the same names.
  target_link_options(ta_${name} PRIVATE "LINKER:--version-script=${ZEL_VAULT_DIR}/ta_exports.map")
  set_property(TARGET ta_${name} APPEND PROPERTY LINK_DEPENDS ${ZEL_VAULT_DIR}/ta_exports.map)
endfunction()
