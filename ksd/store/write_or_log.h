#ifndef KSD_STORE_WRITE_OR_LOG_H
#define KSD_STORE_WRITE_OR_LOG_H

// Runs a store write whose failure must not stop a service: its memory stays
// authoritative and the failure is logged at level 1.

#include <exception>

#include "OrvoLogging.h"

namespace ksd::store {

template <typename Write>
void writeOrLog(const char* what, Write&& write) {
    try {
        write();
    } catch (const std::exception& e) {
        ORVO_LOG(1, "ksd: " << what << " not stored: " << e.what());
    }
}

}  // namespace ksd::store

#endif
