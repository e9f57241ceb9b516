#ifndef ORVO_EXCEPTION_H
#define ORVO_EXCEPTION_H

#include <exception>

#include "OrvoString.h"

namespace OrvoSupport {

// The one exception type of the support and connection layers: a text and an
// integer code (an errno value for transport failures).
class ORVO_SUPPORT_API OrvoException : public std::exception {
public:
    OrvoException(const OrvoString& sMessage, int nCode);
    ~OrvoException() override;

    virtual int getCode() const;
    const OrvoString& getMessage() const;
    const char* what() const noexcept override;

private:
    OrvoString m_sMessage;
    int m_nCode;
};

}  // namespace OrvoSupport

#endif
