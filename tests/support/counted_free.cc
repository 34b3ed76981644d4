// free() as the objects of a test program linked with -Wl,--wrap=free see it: every call is
// reported to the platform stand-ins' ledger, which counts those that release a string it handed
// out, and then goes on to the real free().
#include "stand_in_store.h"

extern "C" void __real_free(void* pointer);

extern "C" void __wrap_free(void* pointer) {
    zel::stand_in::noteFree(pointer);
    __real_free(pointer);
}
