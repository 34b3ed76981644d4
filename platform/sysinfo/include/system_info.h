/* The device's system-information service, as far as the library uses it: string-valued items. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    SYSTEM_INFO_KEY_MODEL = 0,
    SYSTEM_INFO_KEY_MANUFACTURER,
    SYSTEM_INFO_KEY_PLATFORM_NAME,
    SYSTEM_INFO_KEY_PLATFORM_VERSION,
    SYSTEM_INFO_KEY_BUILD_STRING,
    SYSTEM_INFO_KEY_BUILD_DATE,
} system_info_key_e;

typedef enum {
    SYSTEM_INFO_ERROR_NONE = 0,
    SYSTEM_INFO_ERROR_IO_ERROR = -5,
    SYSTEM_INFO_ERROR_OUT_OF_MEMORY = -12,
    SYSTEM_INFO_ERROR_INVALID_PARAMETER = -22,
} system_info_error_e;

/* On SYSTEM_INFO_ERROR_NONE, *value is a newly allocated, NUL-terminated string that the caller
 * releases with free(). Any other result is an error and leaves *value alone. */
int system_info_get_value_string(system_info_key_e key, char** value);

#ifdef __cplusplus
}
#endif
