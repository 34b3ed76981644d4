/* A TA that panics on request, for the host TEE's tests: command 0 counts the invocations of its
 * instance into params[0].value.a (a fresh instance counts from 1 again); command 1 takes some
 * memory and panics. */
#ifndef PANIC_TA_H
#define PANIC_TA_H

#define PANIC_TA_UUID                                      \
    {                                                      \
        0x5a454c00, 0x7e57, 0x4a00, {                      \
            0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0xde, 0xad \
        }                                                  \
    }
#define PANIC_TA_COUNT 0
#define PANIC_TA_PANIC 1
#define PANIC_TA_CODE 0xdead

#endif
