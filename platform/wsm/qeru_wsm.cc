#include "qeru_wsm.h"

#include <tee_client_api.h>

namespace {

uint8_t* blockOf(void* record) {
    auto* memory = static_cast<TEEC_SharedMemory*>(record);
    return memory ? static_cast<uint8_t*>(memory->buffer) : nullptr;
}

uint32_t sizeOf(void* record) {
    auto* memory = static_cast<TEEC_SharedMemory*>(record);
    return memory ? static_cast<uint32_t>(memory->size) : 0;
}

}  // namespace

CQeruWsm::CQeruWsm(void* sharedMemory)
    : block_(blockOf(sharedMemory)),
      writer_(block_, sizeOf(sharedMemory)),
      reader_(block_, sizeOf(sharedMemory)) {}

bool CQeruWsm::PutInt(int value) { return writer_.putInt(value); }

bool CQeruWsm::PutUint(unsigned int value) { return writer_.putUint(value); }

bool CQeruWsm::PutBlob(const void* data, unsigned int length) {
    return writer_.put(zel::wsm::kBlob, data, length);
}

int CQeruWsm::PrepareReset(int mode) {
    if (mode == 1)
        reader_.rewind();
    else
        writer_.rewind();
    return 0;
}

bool CQeruWsm::GetInt(int* value) {
    int32_t read = 0;
    if (!value || !reader_.getInt(read)) return false;
    *value = read;
    return true;
}

bool CQeruWsm::GetUint(unsigned int* value) {
    uint32_t read = 0;
    if (!value || !reader_.getUint(read)) return false;
    *value = read;
    return true;
}

unsigned char* CQeruWsm::GetBlob(unsigned int n) {
    // The block is the caller's own writable memory; the reader only hands out const views.
    return const_cast<unsigned char*>(reader_.get(zel::wsm::kBlob, n));
}
