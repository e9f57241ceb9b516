// Native side of com.orvo.ksa.common.notificationnetwork.NNC: publishing,
// and the polling model of the Java notification container, with the table
// that links a finished wait (its ticket) to the retrieval of its data.

#include <jni.h>

#include <map>

#include "JavaStrings.h"
#include "KSIntfLibrary.h"
#include "OrvoCriticalSection.h"
#include "OrvoLogging.h"
#include "OrvoNotificationNetwork.h"

using KSInterface::OrvoJavaNotificationCallbackContainer;
using KSInterface::OrvoJavaNotificationSP;
using OrvoSupport::OrvoCriticalSection;

namespace {

// The last ticket handed out; 0 is never a ticket.
int nTicket = 0;
// Delivered notifications that Java has not retrieved yet, by ticket.
// Written under the container's mutex, read by retrieval without it.
std::map<int, OrvoJavaNotificationSP> spNData;

// A failed member lookup leaves NoSuchFieldError/NoSuchMethodError pending;
// these methods report through the log only, so it is cleared.
bool lookupFailed(JNIEnv* env, bool bMissing) {
    if (env->ExceptionCheck()) env->ExceptionClear();
    return bMissing;
}

}  // namespace

extern "C" {

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_notificationnetwork_NNC_regForNotification(JNIEnv* env, jobject,
                                                                                          jstring collaboratorName) {
    const KSInterface::JavaUtfChars name(env, collaboratorName, "eventName");
    if (!name) return -14;
    ORVO_LOG(9, "NNC::regForNotification: enter: pszCollaboratorName="
                    << "|" << name.c_str() << "|");
    const int hRegistration = OrvoJavaNotificationCallbackContainer::getInstance().regForJavaNotification(name.c_str());
    ORVO_LOG(9, "NNC::regForNotification: exit");
    return hRegistration;
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_notificationnetwork_NNC_waitForNotification(JNIEnv*, jobject,
                                                                                           jint hRegistration) {
    int nResult = -1;
    OrvoJavaNotificationCallbackContainer& container = OrvoJavaNotificationCallbackContainer::getInstance();
    ORVO_LOG(9, "Java.com.orvo.ksa.common.notificationnetwork.NNC::waitForNotification: enter");
    OrvoCriticalSection lock(container.mutex());
    OrvoJavaNotificationSP spNotification;
    const bool bHave = container.waitForJavaNotification(hRegistration, spNotification);
    ORVO_LOG(9, "Java.com.orvo.ksa.common.notificationnetwork.NNC::waitForNotification: done waiting");
    if (!bHave) {
        ORVO_LOG(9, "Java.com.orvo.ksa.common.notificationnetwork.NNC::waitForNotification: no notification");
    } else {
        ORVO_LOG(9, "Java.com.orvo.ksa.common.notificationnetwork.NNC::waitForNotification: have a notification");
        if (++nTicket == 0) nTicket = 1;
        nResult = nTicket;
        spNData[nResult] = spNotification;
    }
    ORVO_LOG(9, "Java.com.orvo.ksa.common.notificationnetwork.NNC::waitForNotification: exit");
    return nResult;
}

JNIEXPORT void JNICALL Java_com_orvo_ksa_common_notificationnetwork_NNC_stopWaitNotification(JNIEnv*, jobject,
                                                                                            jint hRegistration) {
    ORVO_LOG(9, "NNC::stopWaitNotification: enter");
    OrvoJavaNotificationCallbackContainer::getInstance().stopJavaWaitNotification(hRegistration);
    ORVO_LOG(9, "NNC::stopWaitNotification: exit");
}

JNIEXPORT void JNICALL Java_com_orvo_ksa_common_notificationnetwork_NNC_retrieveNotificationData(JNIEnv* env, jobject,
                                                                                                jobject obj) {
    ORVO_LOG(9, "NNC::retrieveNotificationData: enter");
    jclass cls = env->GetObjectClass(obj);
    jfieldID fidTicket = env->GetFieldID(cls, "m_nTicket", "I");
    if (lookupFailed(env, fidTicket == nullptr)) {
        ORVO_LOG(9, "NNC::retrieveNotificationData: no ticket attribute found");
        return;
    }
    const int nThisTicket = env->GetIntField(obj, fidTicket);
    ORVO_LOG(9, "NNC::retrieveNotificationData: ticket=" << nThisTicket);
    // Each ticket is retrieved once.
    OrvoJavaNotificationSP spNotification = spNData[nThisTicket];
    spNData.erase(nThisTicket);
    if (spNotification == OrvoJavaNotificationSP()) {
        ORVO_LOG(9, "NNC::retrieveNotificationData: no notification for ticket=" << nThisTicket);
        return;
    }

    jmethodID midText = env->GetMethodID(cls, "setNotificationData", "(Ljava/lang/String;)V");
    if (lookupFailed(env, midText == nullptr)) {
        ORVO_LOG(9, "NNC::retrieveNotificationData: no setNotificaitonData method found");
        return;
    }
    ORVO_LOG(9, "NNC::retrieveNotificationData: setting notification data");
    jstring jsText = env->NewStringUTF(spNotification->notification().m_pszData);
    if (env->ExceptionCheck()) return;
    env->CallVoidMethod(obj, midText, jsText);
    env->DeleteLocalRef(jsText);
    // An exception thrown by the Java method itself is left for its caller.
    if (env->ExceptionCheck()) return;

    // The Java method is declared with Byte[] but receives a primitive byte
    // array; the Java class is written to accept exactly that.
    jmethodID midBytes = env->GetMethodID(cls, "setProducerData", "([Ljava/lang/Byte;)V");
    if (lookupFailed(env, midBytes == nullptr)) {
        ORVO_LOG(9, "NNC::retrieveNotificationData: no setProducerData method found");
        return;
    }
    ORVO_LOG(9, "NNC::retrieveNotificationData: setting producer data");
    const jint nLength = static_cast<jint>(spNotification->notification().m_nDataLength);
    jbyteArray jaBytes = env->NewByteArray(nLength);
    if (env->ExceptionCheck()) return;
    env->SetByteArrayRegion(jaBytes, 0, nLength, static_cast<const jbyte*>(spNotification->notification().m_pData));
    if (env->ExceptionCheck()) return;
    env->CallVoidMethod(obj, midBytes, jaBytes);
    env->DeleteLocalRef(jaBytes);
    if (env->ExceptionCheck()) return;

    jfieldID fidEventName = env->GetFieldID(cls, "m_sEventName", "Ljava/lang/String;");
    if (lookupFailed(env, fidEventName == nullptr)) {
        ORVO_LOG(9, "NNC::retrieveNotificationData: no m_sEventName attribute found");
        return;
    }
    ORVO_LOG(9, "NNC::retrieveNotificationData: setting event name");
    jstring jsEventName = env->NewStringUTF(spNotification->eventName().c_str());
    if (env->ExceptionCheck()) return;
    env->SetObjectField(obj, fidEventName, jsEventName);
    env->DeleteLocalRef(jsEventName);
    env->DeleteLocalRef(cls);
    spNotification = OrvoJavaNotificationSP();
    ORVO_LOG(9, "NNC::retrieveNotificationData: exit");
}

JNIEXPORT void JNICALL Java_com_orvo_ksa_common_notificationnetwork_NNC_NNotify(JNIEnv* env, jclass, jstring eventName,
                                                                               jstring notificationData,
                                                                               jbyteArray producerData) {
    const KSInterface::JavaUtfChars name(env, eventName, "eventName");
    if (!name) return;
    const KSInterface::JavaUtfChars data(env, notificationData, "notificationData");
    if (!data) return;
    if (producerData == nullptr) {
        env->ThrowNew(env->FindClass("java/lang/NullPointerException"), "producerData");
        return;
    }
    jbyte* pBytes = env->GetByteArrayElements(producerData, nullptr);
    if (env->ExceptionCheck()) return;
    const long nLength = env->GetArrayLength(producerData);

    OrvoNNNotification record;
    record.m_pszData = data.c_str();
    record.m_pData = pBytes;
    record.m_nDataLength = nLength;
    record.m_pContext = nullptr;  // publishers have no context
    OrvoNNNotify(name.c_str(), &record);
    env->ReleaseByteArrayElements(producerData, pBytes, 0);
}

}  // extern "C"
