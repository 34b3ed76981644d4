# The four platform interfaces the library is built against, as the targets
#   zel::teec_headers  zel::teec  zel::codec  zel::vconf  zel::system_info
# ZEL_PLATFORM=host: the project's stand-ins in platform/ (defined there).
# ZEL_PLATFORM=device: the platform's own libraries and headers, found installed (on the build
# machine or in the cross toolchain's sysroot; CMAKE_PREFIX_PATH or the ZEL_*_INCLUDE_DIR and
# ZEL_*_LIBRARY cache entries point elsewhere).

set(ZEL_PLATFORM host CACHE STRING
    "host: build the project's stand-ins of the platform libraries; device: use the installed ones")
set_property(CACHE ZEL_PLATFORM PROPERTY STRINGS host device)
if(NOT ZEL_PLATFORM MATCHES "^(host|device)$")
  message(FATAL_ERROR "ZEL_PLATFORM is '${ZEL_PLATFORM}'; it must be host or device")
endif()

# Finds one platform library and its header; what is missing is added to ZEL_PLATFORM_MISSING.
function(zel_find_platform_library target)
  cmake_parse_arguments(arg "" "WHAT;HEADER;VARIABLE" "NAMES;HEADER_SUFFIXES" ${ARGN})
  find_path(ZEL_${arg_VARIABLE}_INCLUDE_DIR ${arg_HEADER} PATH_SUFFIXES ${arg_HEADER_SUFFIXES}
            DOC "Folder holding ${arg_HEADER}, the header of ${arg_WHAT}")
  find_library(ZEL_${arg_VARIABLE}_LIBRARY NAMES ${arg_NAMES}
               DOC "The shared library of ${arg_WHAT}")
  set(missing ${ZEL_PLATFORM_MISSING})
  if(NOT ZEL_${arg_VARIABLE}_INCLUDE_DIR)
    list(APPEND missing "  ${arg_WHAT}: header ${arg_HEADER} (set ZEL_${arg_VARIABLE}_INCLUDE_DIR)")
  endif()
  if(NOT ZEL_${arg_VARIABLE}_LIBRARY)
    string(REPLACE ";" ", " names "${arg_NAMES}")
    list(APPEND missing "  ${arg_WHAT}: library ${names} (set ZEL_${arg_VARIABLE}_LIBRARY)")
  endif()
  set(ZEL_PLATFORM_MISSING ${missing} PARENT_SCOPE)
  if(ZEL_${arg_VARIABLE}_INCLUDE_DIR AND ZEL_${arg_VARIABLE}_LIBRARY)
    add_library(${target} SHARED IMPORTED GLOBAL)
    set_target_properties(${target} PROPERTIES
      IMPORTED_LOCATION "${ZEL_${arg_VARIABLE}_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${ZEL_${arg_VARIABLE}_INCLUDE_DIR}")
    message(STATUS "${arg_WHAT}: ${ZEL_${arg_VARIABLE}_LIBRARY}")
  endif()
endfunction()

if(ZEL_PLATFORM STREQUAL "device")
  set(ZEL_PLATFORM_MISSING)
  zel_find_platform_library(zel::teec VARIABLE TEEC WHAT "the TEE client library"
    HEADER tee_client_api.h HEADER_SUFFIXES teec tee NAMES teec)
  zel_find_platform_library(zel::codec VARIABLE CODEC WHAT "the shared-memory codec library"
    HEADER qeru_wsm.h HEADER_SUFFIXES qeru NAMES qeru_utility_nwd)
  zel_find_platform_library(zel::vconf VARIABLE VCONF WHAT "the configuration store"
    HEADER vconf.h HEADER_SUFFIXES vconf NAMES vconf)
  zel_find_platform_library(zel::system_info VARIABLE SYSTEM_INFO
    WHAT "the system-information service" HEADER system_info.h HEADER_SUFFIXES system
    NAMES system-info system_info)
  if(ZEL_PLATFORM_MISSING)
    list(JOIN ZEL_PLATFORM_MISSING "\n" missing)
    message(FATAL_ERROR "ZEL_PLATFORM=device, but the platform's development files are missing:\n"
                        "${missing}\n"
                        "Install them, or point CMAKE_PREFIX_PATH (or the entries named) at them.")
  endif()
  add_library(zel::teec_headers INTERFACE IMPORTED GLOBAL)
  set_target_properties(zel::teec_headers PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${ZEL_TEEC_INCLUDE_DIR}")
  # The codec's header speaks of the TEE client's shared-memory record.
  set_property(TARGET zel::codec APPEND PROPERTY INTERFACE_LINK_LIBRARIES zel::teec_headers)
endif()
