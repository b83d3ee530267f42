#include "MtDevPorts.h"

#include <cstdio>

std::string DescribeHidIdentity(const TMtHidIdentity& identity) {
    std::string text = identity.node.empty() ? "a frame" : identity.node;
    std::string details;
    if (identity.vendorId != 0 || identity.productId != 0) {
        char ids[16];
        std::snprintf(ids, sizeof ids, "%04X:%04X", identity.vendorId, identity.productId);
        details = ids;
    }
    if (!identity.product.empty()) {
        details += (details.empty() ? "\"" : " \"") + identity.product + "\"";
    }
    if (!identity.serial.empty()) {
        details += (details.empty() ? "serial " : ", serial ") + identity.serial;
    }
    if (!details.empty()) text += " (" + details + ")";
    return text;
}
