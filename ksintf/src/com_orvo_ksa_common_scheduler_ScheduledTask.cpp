// Native side of com.orvo.ksa.common.scheduler.ScheduledTask: the task
// scheduler's C interface for Java, with growing reply buffers, trace records
// in the library's log, and task-state waits through the Java container.

#include <jni.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "JavaStrings.h"
#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "OrvoCriticalSection.h"
#include "OrvoLogging.h"
#include "OrvoTaskScheduler.h"

using KSInterface::OrvoJavaNotificationCallbackContainer;
using KSInterface::OrvoJavaNotificationSP;
using OrvoSupport::OrvoCriticalSection;

namespace {

const int kInitialBufferSize = 8192;
const int kBufferTooSmall = -12;

// The task this Java object stands for; looked up on every call.
int taskIdOf(JNIEnv* env, jobject self) {
    jclass cls = env->GetObjectClass(self);
    jfieldID fid = env->GetFieldID(cls, "n_TaskId", "I");
    env->DeleteLocalRef(cls);
    return env->GetIntField(self, fid);
}

// Calls fetch(&size, buffer) with buffers of 8192 bytes and then of the
// size each -12 asked for, until the answer is something else; then hands
// the last buffer, size and result to build. Each attempt gets a fresh buffer.
template <class Fetch, class Build>
auto fetchGrowing(Fetch fetch, Build build) {
    int nSize = kInitialBufferSize;
    for (;;) {
        char* pBuf = new char[nSize];
        const int nResult = fetch(&nSize, pBuf);
        if (nResult == kBufferTooSmall) {
            delete[] pBuf;
            continue;
        }
        auto result = build(nResult, nSize, pBuf);
        delete[] pBuf;
        return result;
    }
}

jstring textOrNull(JNIEnv* env, int nResult, const char* pBuf) {
    return nResult == 0 ? env->NewStringUTF(pBuf) : nullptr;
}

}  // namespace

extern "C" {

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_scheduleTask(
    JNIEnv* env, jobject, jstring taskname, jstring appname, jstring appworkpath, jstring parastr, jint frequency,
    jint month, jint day, jint year, jint hour, jint minute, jint sec, jstring logfilename) {
    const KSInterface::JavaUtfChars name(env, taskname, "taskName");
    if (!name) return -14;
    const KSInterface::JavaUtfChars program(env, appname, "appName");
    if (!program) return -14;
    const KSInterface::JavaUtfChars workPath(env, appworkpath, "appWorkPath");
    if (!workPath) return -14;
    const KSInterface::JavaUtfChars parameters(env, parastr, "paraStr");
    if (!parameters) return -14;
    const KSInterface::JavaUtfChars logFile(env, logfilename, "logFileName");
    if (!logFile) return -14;
    const int nResult = OrvoTSScheduleTask(name.c_str(), program.c_str(), workPath.c_str(), parameters.c_str(),
                                           static_cast<tTaskFrequency>(frequency), month, day, year, hour, minute, sec,
                                           logFile.c_str());
    ORVO_LOG(9, "TASKSCHEDULE : TaskName : " << name.c_str() << " , HANDLE = " << nResult);
    return nResult;
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_scheduledTaskLookup(JNIEnv* env, jobject,
                                                                                           jstring taskname) {
    const KSInterface::JavaUtfChars name(env, taskname, "taskName");
    if (!name) return -14;
    const int nResult = OrvoTSScheduledTaskLookup(name.c_str());
    ORVO_LOG(9, "LOOKUP : TaskName : " << name.c_str() << " , ID = " << nResult);
    return nResult;
}

JNIEXPORT void JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_cancelTask(JNIEnv*, jobject, jint taskid) {
    const int nResult = OrvoTSCancelTask(taskid);
    ORVO_LOG(9, "TASKCANCEL : ID = " << taskid << " ReturnCode = " << nResult);
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_OrvoTSTaskState(JNIEnv*, jobject,
                                                                                       jint taskid) {
    return OrvoTSTaskState(taskid);
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_OrvoTSExitCode(JNIEnv*, jobject, jint taskid) {
    return OrvoTSExitCode(taskid);
}

JNIEXPORT jstring JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_OrvoTSExecutionDate(JNIEnv* env, jobject,
                                                                                              jint taskid,
                                                                                              jint timesize) {
    // No date buffer on purpose: only the size the call reports is used.
    char* pszDateTime = nullptr;
    int nSize = timesize;
    const int nResult = OrvoTSExecutionInformation(taskid, pszDateTime, &nSize);
    jstring jsResult = (nResult == -1 || nSize <= 30) ? env->NewStringUTF("") : env->NewStringUTF(pszDateTime);
    ORVO_LOG(9, "TASKEXECUTIONINFO : ID = " << taskid
                                            << " DateTime = " << (pszDateTime != nullptr ? pszDateTime : "(null)")
                                            << "  TimeSize = " << nSize);
    return jsResult;
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_regForNotification(JNIEnv*, jobject,
                                                                                          jint taskid) {
    const OrvoSupport::OrvoString sEventName = KSInterface::TaskSchedulerEventName(taskid);
    ORVO_LOG(9, "Java.com.orvo.ksa.common.scheduler.ScheduledTask::regForNotification: enter: taskid=" << taskid);
    const int hRegistration =
        OrvoJavaNotificationCallbackContainer::getInstance().regForJavaNotification(sEventName.c_str());
    ORVO_LOG(9, "Java.com.orvo.ksa.common.scheduler.ScheduledTask::regForNotification: exit");
    return hRegistration;
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_waitForNotification(JNIEnv*, jobject,
                                                                                           jint hRegistration) {
    return KSInterface::waitForJavaEventCode(hRegistration, "Java.com.orvo.ksa.common.scheduler.ScheduledTask");
}

JNIEXPORT void JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_stopWaitNotification(JNIEnv*, jobject,
                                                                                            jint hRegistration) {
    ORVO_LOG(9, "Java.com.orvo.ksa.common.scheduler.ScheduleTask::stopWaitNotification: enter");
    OrvoJavaNotificationCallbackContainer::getInstance().stopJavaWaitNotification(hRegistration);
    ORVO_LOG(9, "Java.com.orvo.ksa.common.scheduler.ScheduleTask::stopWaitNotification: exit");
}

JNIEXPORT jstring JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_getNextScheduledTime(JNIEnv* env,
                                                                                               jobject self) {
    const int hTask = taskIdOf(env, self);
    int nFrequency = -1;
    return fetchGrowing(
        [&](int* pnSize, char* pBuf) { return OrvoTSScheduledTaskGetNextTime(hTask, pnSize, pBuf, &nFrequency); },
        [&](int nResult, int, const char* pBuf) { return textOrNull(env, nResult, pBuf); });
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_getTaskFrequency(JNIEnv* env, jobject self) {
    const int hTask = taskIdOf(env, self);
    // Stays -1 when the call fails before it sets the frequency.
    int nFrequency = -1;
    return fetchGrowing(
        [&](int* pnSize, char* pBuf) { return OrvoTSScheduledTaskGetNextTime(hTask, pnSize, pBuf, &nFrequency); },
        [&](int, int, const char*) { return static_cast<jint>(nFrequency); });
}

JNIEXPORT jint JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_scheduleBlob(JNIEnv* env, jobject,
                                                                                    jstring taskname, jbyteArray blob,
                                                                                    jint frequency, jint month,
                                                                                    jint day, jint year, jint hour,
                                                                                    jint minute, jint sec) {
    const KSInterface::JavaUtfChars name(env, taskname, "taskName");
    if (!name) return -14;
    if (blob == nullptr) {
        env->ThrowNew(env->FindClass("java/lang/NullPointerException"), "blob");
        return -14;
    }
    jbyte* pBlob = env->GetByteArrayElements(blob, nullptr);
    const jint nLength = env->GetArrayLength(blob);
    const int nResult =
        OrvoTSScheduleBlobTask(name.c_str(), nLength, reinterpret_cast<const char*>(pBlob),
                               static_cast<tTaskFrequency>(frequency), month, day, year, hour, minute, sec);
    env->ReleaseByteArrayElements(blob, pBlob, 0);
    return nResult;
}

JNIEXPORT jstring JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_listAllExecTasks(JNIEnv* env, jclass) {
    return fetchGrowing([](int* pnSize, char* pBuf) { return OrvoTSListAllExecTasks(pnSize, pBuf); },
                        [&](int nResult, int, const char* pBuf) { return textOrNull(env, nResult, pBuf); });
}

JNIEXPORT jstring JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_listAllBlobTasks(JNIEnv* env, jclass) {
    return fetchGrowing([](int* pnSize, char* pBuf) { return OrvoTSListAllBlobTasks(pnSize, pBuf); },
                        [&](int nResult, int, const char* pBuf) { return textOrNull(env, nResult, pBuf); });
}

JNIEXPORT jbyteArray JNICALL Java_com_orvo_ksa_common_scheduler_ScheduledTask_getBlob(JNIEnv* env, jobject self) {
    const int hTask = taskIdOf(env, self);
    return fetchGrowing([&](int* pnSize, char* pBuf) { return OrvoTSRetrieveBlobTask(hTask, pnSize, pBuf); },
                        [&](int nResult, int nSize, const char* pBuf) -> jbyteArray {
                            if (nResult != 0) return nullptr;
                            jbyteArray jaBlob = env->NewByteArray(nSize);
                            if (jaBlob == nullptr) return nullptr;  // OutOfMemoryError pending
                            env->SetByteArrayRegion(jaBlob, 0, nSize, reinterpret_cast<const jbyte*>(pBuf));
                            return jaBlob;
                        });
}

}  // extern "C"
