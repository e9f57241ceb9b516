// Copying a string into a caller's fixed buffer.

#include "OrvoString.h"

#include <cstring>

namespace OrvoSupport {

char* OrvoStringToChar(const OrvoString& sText, char* pBuffer, int nCapacity) {
    if (pBuffer == nullptr || nCapacity <= 0) return nullptr;
    // All or nothing: a caller never sees a truncated text.
    if (sText.size() + 1 > static_cast<std::size_t>(nCapacity)) return nullptr;
    std::memcpy(pBuffer, sText.c_str(), sText.size() + 1);
    return pBuffer;
}

}  // namespace OrvoSupport
