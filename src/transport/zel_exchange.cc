#include "transport/zel_exchange.h"

#include "transport/log_line.h"

namespace zel {

ZelExchange::ZelExchange(const TEEC_UUID& uuid) : open_(client_.Open(uuid)) {}

CQeruWsm& ZelExchange::codec() {
    if (!codec_) codec_.emplace(client_.getSHMPtr());
    return *codec_;
}

bool ZelExchange::write(std::initializer_list<WsmField> fields) {
    CQeruWsm& wsm = codec();
    bool written = true;
    for (const WsmField& field : fields) {
        switch (field.kind) {
            case WsmField::kInt:
                written = wsm.PutInt(field.intValue) && written;
                break;
            case WsmField::kUint:
                written = wsm.PutUint(field.uintValue) && written;
                break;
            case WsmField::kBlob:
                written = wsm.PutBlob(field.data, field.uintValue) && written;
                break;
        }
    }
    if (!written) logLine("WSM error");
    return written;
}

CQeruWsm& ZelExchange::reply() {
    CQeruWsm& wsm = codec();
    wsm.PrepareReset(1);
    return wsm;
}

}  // namespace zel
