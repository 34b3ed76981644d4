/* The device's configuration store, as far as the library uses it: string values by key. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* A newly allocated, NUL-terminated copy of the string stored under key, which the caller releases
 * with free(); NULL when the key cannot be read. */
char* vconf_get_str(const char* key);

#ifdef __cplusplus
}
#endif
