#ifndef KSINTF_JAVA_STRINGS_H
#define KSINTF_JAVA_STRINGS_H

// A Java string's modified UTF-8 for the length of one native call. A null
// string raises NullPointerException in the caller instead of reaching the C
// functions, where it would be a crash; the native then returns at once.

#include <jni.h>

namespace KSInterface {

class JavaUtfChars {
public:
    JavaUtfChars(JNIEnv* pEnv, jstring jsText, const char* pszWhat) : m_pEnv(pEnv), m_jsText(jsText) {
        if (jsText == nullptr) {
            if (!pEnv->ExceptionCheck()) {
                jclass cls = pEnv->FindClass("java/lang/NullPointerException");
                if (cls != nullptr) pEnv->ThrowNew(cls, pszWhat);
            }
            return;
        }
        // Null here means OutOfMemoryError is pending.
        m_pszChars = pEnv->GetStringUTFChars(jsText, nullptr);
    }
    ~JavaUtfChars() {
        if (m_pszChars != nullptr) m_pEnv->ReleaseStringUTFChars(m_jsText, m_pszChars);
    }
    JavaUtfChars(const JavaUtfChars&) = delete;
    JavaUtfChars& operator=(const JavaUtfChars&) = delete;

    // False when a Java exception is pending and the native must return.
    explicit operator bool() const { return m_pszChars != nullptr; }
    const char* c_str() const { return m_pszChars; }

private:
    JNIEnv* m_pEnv;
    jstring m_jsText;
    const char* m_pszChars = nullptr;
};

}  // namespace KSInterface

#endif
