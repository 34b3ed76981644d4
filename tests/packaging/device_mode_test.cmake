# The device build mode against a platform installed in a scratch prefix: stub headers and stub
# shared libraries of the TEE client, the codec, the configuration store and the system-information
# service are generated and installed there, then the project is configured for the device
# against them, built and installed, and a harness is built against the installed library both
# through find_package and through pkg-config. A prefix holding only the TEE client must fail to
# configure, naming the other three.
#
# cmake -DSOURCE_DIR=... -DWORK_DIR=... [-DGENERATOR=...] [-DTOOLCHAIN_FILE=...] -P this file

foreach(variable SOURCE_DIR WORK_DIR)
  if(NOT ${variable})
    message(FATAL_ERROR "${variable} is not set")
  endif()
endforeach()
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
set(common_arguments)
if(GENERATOR)
  list(APPEND common_arguments -G "${GENERATOR}")
endif()
if(TOOLCHAIN_FILE)
  list(APPEND common_arguments "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}")
endif()

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${what} failed (${result}):\n${out}")
  endif()
endfunction()

function(expect_file path)
  if(NOT EXISTS "${path}")
    message(FATAL_ERROR "missing: ${path}")
  endif()
endfunction()

# --- The fake platform: stub sources, built and installed like the platform's -dev packages. ---
set(stubs "${WORK_DIR}/stubs")
set(platform "${WORK_DIR}/platform")
file(COPY "${SOURCE_DIR}/platform/teec/include/tee_client_api.h" DESTINATION "${stubs}/include")
file(COPY "${SOURCE_DIR}/platform/vconf/include/vconf.h" DESTINATION "${stubs}/include/vconf")
file(COPY "${SOURCE_DIR}/platform/sysinfo/include/system_info.h"
     DESTINATION "${stubs}/include/system")
# The device's codec header: the interface only, its state opaque.
file(WRITE "${stubs}/include/qeru/qeru_wsm.h" [=[
#pragma once
class CQeruWsm {
public:
    explicit CQeruWsm(void* sharedMemory);
    ~CQeruWsm();
    bool PutInt(int value);
    bool PutUint(unsigned int value);
    bool PutBlob(const void* data, unsigned int length);
    int PrepareReset(int mode);
    bool GetInt(int* value);
    bool GetUint(unsigned int* value);
    unsigned char* GetBlob(unsigned int n);
private:
    void* opaque_[8];
};
]=])
file(WRITE "${stubs}/teec.cc" [=[
#include <tee_client_api.h>
extern "C" {
TEEC_Result TEEC_InitializeContext(const char*, TEEC_Context*) { return TEEC_ERROR_NOT_IMPLEMENTED; }
void TEEC_FinalizeContext(TEEC_Context*) {}
TEEC_Result TEEC_OpenSession(TEEC_Context*, TEEC_Session*, const TEEC_UUID*, uint32_t, const void*,
                             TEEC_Operation*, uint32_t*) { return TEEC_ERROR_NOT_IMPLEMENTED; }
void TEEC_CloseSession(TEEC_Session*) {}
TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context*, TEEC_SharedMemory*) {
    return TEEC_ERROR_NOT_IMPLEMENTED;
}
void TEEC_ReleaseSharedMemory(TEEC_SharedMemory*) {}
TEEC_Result TEEC_InvokeCommand(TEEC_Session*, uint32_t, TEEC_Operation*, uint32_t*) {
    return TEEC_ERROR_NOT_IMPLEMENTED;
}
}
]=])
file(WRITE "${stubs}/codec.cc" [=[
#include <qeru_wsm.h>
CQeruWsm::CQeruWsm(void*) : opaque_{} {}
CQeruWsm::~CQeruWsm() {}
bool CQeruWsm::PutInt(int) { return false; }
bool CQeruWsm::PutUint(unsigned int) { return false; }
bool CQeruWsm::PutBlob(const void*, unsigned int) { return false; }
int CQeruWsm::PrepareReset(int) { return 0; }
bool CQeruWsm::GetInt(int*) { return false; }
bool CQeruWsm::GetUint(unsigned int*) { return false; }
unsigned char* CQeruWsm::GetBlob(unsigned int) { return nullptr; }
]=])
file(WRITE "${stubs}/vconf.c" [=[
#include <vconf.h>
char* vconf_get_str(const char* key) { (void)key; return 0; }
]=])
file(WRITE "${stubs}/system_info.c" [=[
#include <system_info.h>
int system_info_get_value_string(system_info_key_e key, char** value) {
    (void)key; (void)value; return SYSTEM_INFO_ERROR_IO_ERROR;
}
]=])
file(WRITE "${stubs}/CMakeLists.txt" [=[
cmake_minimum_required(VERSION 3.25)
project(fake_platform C CXX)
option(ONLY_TEEC "Install the TEE client only" OFF)
include_directories(include include/qeru include/vconf include/system)
add_library(teec SHARED teec.cc)
install(TARGETS teec LIBRARY DESTINATION lib)
install(FILES include/tee_client_api.h DESTINATION include)
if(NOT ONLY_TEEC)
  add_library(qeru_utility_nwd SHARED codec.cc)
  add_library(vconf SHARED vconf.c)
  add_library(system-info SHARED system_info.c)
  install(TARGETS qeru_utility_nwd vconf system-info LIBRARY DESTINATION lib)
  install(DIRECTORY include/qeru include/vconf include/system DESTINATION include)
endif()
]=])
foreach(variant full teec_only)
  set(only_teec OFF)
  if(variant STREQUAL "teec_only")
    set(only_teec ON)
  endif()
  run("building the ${variant} fake platform" ${CMAKE_COMMAND} -S "${stubs}"
      -B "${WORK_DIR}/stubs-build-${variant}" ${common_arguments} -DONLY_TEEC=${only_teec}
      "-DCMAKE_INSTALL_PREFIX=${platform}-${variant}")
  run("building the ${variant} fake platform" ${CMAKE_COMMAND} --build
      "${WORK_DIR}/stubs-build-${variant}" --target install)
endforeach()

# --- Missing pieces are named, all at once. ---
execute_process(
  COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/missing" ${common_arguments}
          -DZEL_PLATFORM=device -DZEL_BUILD_TESTS=OFF "-DCMAKE_PREFIX_PATH=${platform}-teec_only"
  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(result EQUAL 0)
  message(FATAL_ERROR "device mode configured without the codec, vconf and system-info:\n${out}")
endif()
foreach(expected "the shared-memory codec library: header qeru_wsm.h"
                 "the shared-memory codec library: library qeru_utility_nwd"
                 "the configuration store: header vconf.h"
                 "the system-information service: library system-info")
  string(FIND "${out}" "${expected}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the failed configuration does not say '${expected}':\n${out}")
  endif()
endforeach()
string(REGEX MATCH "the TEE client library: (header|library) " named "${out}")
if(named)
  message(FATAL_ERROR "the TEE client library was there, yet it is named missing:\n${out}")
endif()

# --- The library against the full fake platform. ---
set(build "${WORK_DIR}/build")
set(install "${WORK_DIR}/install")
run("configuring device mode" ${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${build}" ${common_arguments}
    -DZEL_PLATFORM=device -DZEL_BUILD_TESTS=OFF -DZEL_WERROR=ON
    "-DCMAKE_PREFIX_PATH=${platform}-full" "-DCMAKE_INSTALL_PREFIX=${install}"
    -DCMAKE_INSTALL_LIBDIR=lib)
run("building device mode" ${CMAKE_COMMAND} --build "${build}" --target install)
expect_file("${install}/lib/libzel-tc-lib.so")
expect_file("${install}/include/zel-tc-lib/zel_tc_lib.h")
expect_file("${install}/include/zel-tc-lib/support/device_identity.h")
expect_file("${install}/lib/pkgconfig/zel-tc-lib.pc")
expect_file("${install}/lib/cmake/zel-tc-lib/zel-tc-libConfig.cmake")
expect_file("${install}/bin/zel-tc")
# Nothing of the host's: no stand-ins, no daemon.
foreach(host_only lib/libvconf.so lib/libteec.so bin/zel-vaultd lib/zel-tc-lib)
  if(EXISTS "${build}/${host_only}" OR EXISTS "${install}/${host_only}")
    message(FATAL_ERROR "device mode built or installed the host's ${host_only}")
  endif()
endforeach()

# --- A harness finds the installed library both ways. ---
set(harness "${WORK_DIR}/harness")
file(WRITE "${harness}/main.cc" [=[
#include <zel_tc_lib.h>
int main() {
    unsigned char raw[64];
    unsigned int rawLength = sizeof raw;
    const unsigned char der[6] = {0x30, 4, 2, 0, 2, 0};
    hd_path_param path{};
    return ecSignature_der_to_raw(der, 6, raw, &rawLength) + getHDPathIndex(path, 9) +
           static_cast<int>(GetSerialNumber().size() + GetSysInfoStringValue(SYSTEM_INFO_KEY_MODEL).size());
}
]=])
file(WRITE "${harness}/CMakeLists.txt" [=[
cmake_minimum_required(VERSION 3.25)
project(harness CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(zel-tc-lib 0.1 REQUIRED)
add_executable(harness main.cc)
target_link_libraries(harness PRIVATE zel-tc-lib::zel-tc-lib)
find_package(PkgConfig REQUIRED)
pkg_check_modules(ZEL REQUIRED IMPORTED_TARGET zel-tc-lib)
add_executable(harness-pkg-config main.cc)
target_link_libraries(harness-pkg-config PRIVATE PkgConfig::ZEL)
]=])
# pkg-config searches PKG_CONFIG_PATH before its default folders (or a toolchain's).
set(ENV{PKG_CONFIG_PATH} "${install}/lib/pkgconfig")
run("a harness with find_package and pkg-config" ${CMAKE_COMMAND} -S "${harness}" -B "${harness}/build"
    ${common_arguments} "-DCMAKE_PREFIX_PATH=${install}")
run("building the harnesses" ${CMAKE_COMMAND} --build "${harness}/build")

message(STATUS "device mode: configured, built, installed, and found by a harness both ways")
