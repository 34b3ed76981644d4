// CQeruWsm: the shared-memory codec, host build. A sequential writer and reader of typed fields
// in the block that a TEEC_SharedMemory record describes.
//
// Constructed over the record (not its buffer) of a block that must stay allocated for the
// codec's lifetime. Writing starts at offset 0; PrepareReset(1) rewinds to read what the TA wrote
// there, PrepareReset(0) rewinds to write a new message.
#pragma once

#include "wsm_encoding.h"

class CQeruWsm {
public:
    explicit CQeruWsm(void* sharedMemory);
    ~CQeruWsm() = default;
    CQeruWsm(const CQeruWsm&) = delete;
    CQeruWsm& operator=(const CQeruWsm&) = delete;

    bool PutInt(int value);
    bool PutUint(unsigned int value);
    bool PutBlob(const void* data, unsigned int length);

    int PrepareReset(int mode);

    bool GetInt(int* value);
    bool GetUint(unsigned int* value);
    // The address of the next blob of exactly n bytes, inside the block; null when there is none.
    unsigned char* GetBlob(unsigned int n);

private:
    uint8_t* block_;
    zel::wsm::Writer writer_;
    zel::wsm::Reader reader_;
};
