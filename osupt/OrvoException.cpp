// The exception of the support and connection layers.

#include "OrvoException.h"

namespace OrvoSupport {

OrvoException::OrvoException(const OrvoString& sMessage, int nCode) : m_sMessage(sMessage), m_nCode(nCode) {}

OrvoException::~OrvoException() = default;

int OrvoException::getCode() const { return m_nCode; }

const OrvoString& OrvoException::getMessage() const { return m_sMessage; }

const char* OrvoException::what() const noexcept { return m_sMessage.c_str(); }

}  // namespace OrvoSupport
