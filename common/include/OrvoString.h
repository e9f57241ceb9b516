#ifndef ORVO_STRING_H
#define ORVO_STRING_H

#include <string>

#include "OrvoExport.h"

namespace OrvoSupport {

// Every name, text and address in the system is a standard string.
using OrvoString = std::string;

// Copies sText with its terminating zero into pBuffer of nCapacity bytes.
// Returns pBuffer, or null (copying nothing) when pBuffer is null or too small.
ORVO_SUPPORT_API char* OrvoStringToChar(const OrvoString& sText, char* pBuffer, int nCapacity);

}  // namespace OrvoSupport

#endif
