// Intrusive reference count and class-name normalisation.

#include "OrvoObjectBase.h"

#include <cxxabi.h>

#include <cstdlib>

namespace OrvoSupport {

OrvoObjectBase::OrvoObjectBase() : m_nRefCount(0) {}

OrvoObjectBase::~OrvoObjectBase() = default;

// A copy is a new object: it starts unowned, whatever the source's holders.
OrvoObjectBase::OrvoObjectBase(const OrvoObjectBase&) : m_nRefCount(0) {}

// Assignment copies state, never ownership: the count stays the target's.
OrvoObjectBase& OrvoObjectBase::operator=(const OrvoObjectBase&) { return *this; }

void OrvoObjectBase::addRef() { m_nRefCount.fetch_add(1, std::memory_order_relaxed); }

void OrvoObjectBase::release() {
    // acq_rel: the deleting thread must see every other holder's writes.
    if (m_nRefCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

long OrvoObjectBase::refCount() const { return m_nRefCount.load(std::memory_order_relaxed); }

namespace {

OrvoString demangle(const OrvoString& sMangled) {
    int nStatus = 0;
    char* pszPlain = abi::__cxa_demangle(sMangled.c_str(), nullptr, nullptr, &nStatus);
    if (nStatus != 0 || pszPlain == nullptr) {
        std::free(pszPlain);
        return sMangled;
    }
    OrvoString sPlain(pszPlain);
    std::free(pszPlain);
    return sPlain;
}

OrvoString withoutTemplateArguments(const OrvoString& sName) {
    OrvoString sOut;
    sOut.reserve(sName.size());
    int nDepth = 0;
    for (char c : sName) {
        if (c == '<') {
            ++nDepth;
        } else if (c == '>') {
            if (nDepth > 0) --nDepth;
        } else if (nDepth == 0) {
            sOut += c;
        }
    }
    return sOut;
}

}  // namespace

OrvoString OrvoObjectBase::normalizeClassName(const OrvoString& sMangledName) {
    OrvoString sName = sMangledName;
    if (!sName.empty() && sName[0] == '*') sName.erase(0, 1);
    sName = withoutTemplateArguments(demangle(sName));
    // Template arguments are gone, so the last "::" separates the class from
    // its namespaces, enclosing classes or enclosing function.
    std::size_t nPos = sName.rfind("::");
    if (nPos != OrvoString::npos) sName.erase(0, nPos + 2);
    while (!sName.empty() && sName.back() == ' ') sName.pop_back();
    return sName;
}

}  // namespace OrvoSupport
