// Native side of com.orvo.ksa.common.arbitration.ResourceLock: named locks
// through the resource arbitration C interface, and lock-event waits through
// the Java notification container.

#include <jni.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "JavaStrings.h"
#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "OrvoCriticalSection.h"
#include "OrvoLogging.h"
#include "OrvoResourceArbitration.h"

using KSInterface::OrvoJavaNotificationCallbackContainer;
using KSInterface::OrvoJavaNotificationSP;
using OrvoSupport::OrvoCriticalSection;

extern "C" {

JNIEXPORT jlong JNICALL Java_com_orvo_ksa_common_arbitration_ResourceLock_resourceLock(JNIEnv* env, jobject,
                                                                                      jstring resourcename,
                                                                                      jint nmillisec) {
    const KSInterface::JavaUtfChars name(env, resourcename, "resourceName");
    if (!name) return -14;
    return OrvoRAResourceLock(name.c_str(), nmillisec);
}

JNIEXPORT jboolean JNICALL Java_com_orvo_ksa_common_arbitration_ResourceLock_resourceUnLock(JNIEnv*, jobject,
                                                                                           jlong handlereslock) {
    return OrvoRAResourceUnlock(handlereslock) >= 0 ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_arbitration_ResourceLock_regForNotification(JNIEnv* env, jobject,
                                                                                           jstring jsResourceName) {
    const KSInterface::JavaUtfChars name(env, jsResourceName, "resourceName");
    if (!name) return -14;
    const OrvoSupport::OrvoString sEventName = KSInterface::ResourceArbitrationEventName(name.c_str());
    ORVO_LOG(9, "Java.com.orvo.ksa.common.arbitration.regForNotification: enter: pszResourceName="
                    << "|" << name.c_str() << "|");
    const int hRegistration =
        OrvoJavaNotificationCallbackContainer::getInstance().regForJavaNotification(sEventName.c_str());
    ORVO_LOG(9, "Java.com.orvo.ksa.common.arbitration.regForNotification: exit");
    return hRegistration;
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_arbitration_ResourceLock_waitForNotification(JNIEnv*, jobject,
                                                                                           jint hRegistration) {
    return KSInterface::waitForJavaEventCode(hRegistration, "Java.com.orvo.ksa.common.arbitration.ResourceLock");
}

JNIEXPORT void JNICALL Java_com_orvo_ksa_common_arbitration_ResourceLock_stopWaitNotification(JNIEnv*, jobject,
                                                                                             jint hRegistration) {
    ORVO_LOG(9, "Java.com.orvo.ksa.common.arbitration.ResourceLock::stopWaitNotification: enter");
    OrvoJavaNotificationCallbackContainer::getInstance().stopJavaWaitNotification(hRegistration);
    ORVO_LOG(9, "Java.com.orvo.ksa.common.arbitration.ResourceLock::stopWaitNotification: exit");
}

}  // extern "C"
