// Native side of com.orvo.ksa.common.jobstatus.Job: the job status C
// interface for Java, and job-event waits through the Java container.

#include <jni.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "JavaStrings.h"
#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "OrvoCriticalSection.h"
#include "OrvoJobStatus.h"
#include "OrvoLogging.h"

using KSInterface::OrvoJavaNotificationCallbackContainer;
using KSInterface::OrvoJavaNotificationSP;
using OrvoSupport::OrvoCriticalSection;

extern "C" {

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_jobstatus_Job_create(JNIEnv* env, jobject, jstring jsJobDescription,
                                                                    jstring jsJobName) {
    const KSInterface::JavaUtfChars description(env, jsJobDescription, "jobDescription");
    if (!description) return -14;
    const KSInterface::JavaUtfChars name(env, jsJobName, "jobName");
    if (!name) return -14;
    return OrvoJSECreateJob(description.c_str(), name.c_str());
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_jobstatus_Job_lookup(JNIEnv* env, jobject, jstring jsJobName) {
    const KSInterface::JavaUtfChars name(env, jsJobName, "jobName");
    if (!name) return -14;
    return OrvoJSELookupJob(name.c_str());
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_jobstatus_Job_mapAppJob(JNIEnv* env, jobject, jint iJobId,
                                                                       jintArray jaiAppId) {
    if (jaiAppId == nullptr) {
        env->ThrowNew(env->FindClass("java/lang/NullPointerException"), "appIds");
        return -14;
    }
    const jsize nCount = env->GetArrayLength(jaiAppId);
    jboolean bIsCopy = JNI_FALSE;
    // Never handed back with ReleaseIntArrayElements: the C call works on
    // its own copy below, and the elements are left as they are.
    jint* pElements = env->GetIntArrayElements(jaiAppId, &bIsCopy);
    int* pAppIds = new int[nCount];
    for (jsize i = 0; i < nCount; ++i) pAppIds[i] = pElements[i];
    const int nResult = OrvoJSEMapJobIDToAppID(iJobId, nCount, pAppIds);
    delete[] pAppIds;
    return nResult;
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_jobstatus_Job_delete(JNIEnv*, jobject, jint iJobId) {
    return OrvoJSEDeleteJob(iJobId);
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_jobstatus_Job_setProgress(JNIEnv*, jobject, jint iJobId,
                                                                         jint iProgress) {
    return OrvoJSESetJobProgress(iJobId, iProgress);
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_jobstatus_Job_getProgress(JNIEnv*, jobject, jint iJobId) {
    return OrvoJSEGetJobProgress(iJobId);
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_jobstatus_Job_cancel(JNIEnv*, jobject, jint iJobId) {
    return OrvoJSECancelJob(iJobId);
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_jobstatus_Job_regForNotification(JNIEnv* env, jobject,
                                                                                jstring jsJobName) {
    const KSInterface::JavaUtfChars name(env, jsJobName, "jobName");
    if (!name) return -14;
    const OrvoSupport::OrvoString sEventName = KSInterface::JobStatusEventName(name.c_str());
    ORVO_LOG(9, "Java.com.orvo.ksa.common.jobstatus.Job::regForNotification: enter: pszResourceName="
                    << "|" << name.c_str() << "|");
    const int hRegistration =
        OrvoJavaNotificationCallbackContainer::getInstance().regForJavaNotification(sEventName.c_str());
    ORVO_LOG(9, "Java.com.orvo.ksa.common.jobstatus.Job::regForNotification: exit");
    return hRegistration;
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_jobstatus_Job_waitForNotification(JNIEnv*, jobject,
                                                                                 jint hRegistration) {
    return KSInterface::waitForJavaEventCode(hRegistration, "Java.com.orvo.ksa.common.jobstatus.Job");
}

JNIEXPORT void JNICALL Java_com_orvo_ksa_common_jobstatus_Job_stopWaitNotification(JNIEnv*, jobject,
                                                                                  jint hRegistration) {
    ORVO_LOG(9, "Java.com.orvo.ksa.common.jobstatus.Job::stopWaitNotification: enter");
    OrvoJavaNotificationCallbackContainer::getInstance().stopJavaWaitNotification(hRegistration);
    ORVO_LOG(9, "Java.com.orvo.ksa.common.jobstatus.Job::stopWaitNotification: exit");
}

}  // extern "C"
