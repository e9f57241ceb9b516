// Task scheduler client: every call is one request to "Scheduler" on a
// connection of its own; task events come through the notification network.

#include "OrvoTaskScheduler.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "KSIntfInternal.h"
#include "KSIntfLibrary.h"
#include "OrvoException.h"
#include "OrvoLibraryConnection.h"
#include "OrvoLogging.h"
#include "OrvoString.h"

using KSInterface::failedExchange;
using KSInterface::OrvoLibraryConnection;
using OrvoSupport::OrvoException;
using OrvoSupport::OrvoString;

namespace {

const char* const kEngineName = "Scheduler";

// Only the length of this text is reported after a failed exchange.
constexpr std::string_view kExecutionInfoError = "Error in execution information";

// Scheduler calls log a failed exchange under the calling function's name.
template <class WriteFields>
int longReplyRequest(const char* pszFunction, const char* pszCommand, WriteFields writeFields) {
    return KSInterface::longReplyRequest(kEngineName, pszCommand, writeFields,
                                         [&](const OrvoException& e) { return failedExchange(pszFunction, e); });
}

int handleRequest(const char* pszFunction, const char* pszCommand, int hTask) {
    return longReplyRequest(pszFunction, pszCommand,
                            [&](OrvoLibraryConnection& c) { c.transfer(static_cast<long>(hTask)); });
}

// The text protocol shared by the listings and the next-run query: a long
// status, then (status 0) the text, then for the query the frequency when
// the text fitted. The listings send no handle (bSendHandle false).
int textReplyRequest(const char* pszFunction, const OrvoString& sCommand, bool bSendHandle, int hTask,
                     int* pnBufLength, char* pBuf, int* pnFrequency) {
    try {
        OrvoLibraryConnection connection{OrvoString(kEngineName), sCommand};
        if (bSendHandle) connection.transfer(static_cast<long>(hTask));
        const long nStatus = connection.receiveLong();
        if (nStatus != 0) return static_cast<int>(nStatus);
        const OrvoString sText = connection.receiveString();
        int nResult = -12;
        if (static_cast<long>(*pnBufLength) > static_cast<long>(sText.length())) {
            // Zero-fills the rest of the buffer; the last byte is forced to zero as well.
            std::strncpy(pBuf, sText.c_str(), static_cast<std::size_t>(*pnBufLength));
            pBuf[*pnBufLength - 1] = '\0';
            if (pnFrequency != nullptr) *pnFrequency = connection.receiveInt();
            nResult = 0;
        }
        *pnBufLength = static_cast<int>(sText.length()) + 1;
        return nResult;
    } catch (OrvoException& e) {
        return failedExchange(pszFunction, e);
    }
}

int OrvoTSListAllTasks(const OrvoString& sCommand, int* pnBufLength, char* pBuf) {
    if (pnBufLength == nullptr || *pnBufLength < 0 || pBuf == nullptr) return -14;
    return textReplyRequest("OrvoTSListAllTasks", sCommand, false, 0, pnBufLength, pBuf, nullptr);
}

}  // namespace

namespace KSInterface {

int GetYear() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return local.tm_year + 1900;
}

bool Validate(int nDay, int nMon, int nYr, bool pastCheck) {
    if (!pastCheck) {
        static const int kDays[2][12] = {{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
                                         {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31}};
        const bool bLeap = (nYr % 4 == 0 && nYr % 100 != 0) || nYr % 400 == 0;
        return nDay <= kDays[bLeap ? 1 : 0][nMon - 1];
    }
    // Today's time of day on the given date: any time today passes, any earlier date fails.
    const std::time_t now = std::time(nullptr);
    std::tm when{};
    localtime_r(&now, &when);
    when.tm_year = nYr - 1900;
    when.tm_mon = nMon - 1;
    when.tm_mday = nDay;
    const std::time_t target = std::mktime(&when);
    return now <= target;
}

}  // namespace KSInterface

extern "C" {

int OrvoTSScheduleTask(const char* pszTaskName, const char* pszAppName, const char* pszAppWorkingPath,
                       const char* pszParameterString, tTaskFrequency frequency, int nMonth, int nDay, int nYear,
                       int nHour, int nMinute, int nSecond, const char* pszLogFileName) {
    if (frequency != cBootTime) {
        // The codes do not follow the order of the checks (-4 before -3); callers rely on both.
        if (nMonth < 1 || nMonth > 12) return -1;
        if (nDay < 1 || nDay > 31) return -2;
        if (nYear < KSInterface::GetYear()) return -4;
        if (!KSInterface::Validate(nDay, nMonth, nYear, false)) return -3;
        if (nHour < 0 || nHour > 23) return -5;
        if (nMinute < 0 || nMinute > 59) return -6;
        if (nSecond < 0 || nSecond > 59) return -7;
        if (!KSInterface::Validate(nDay, nMonth, nYear, true)) return -8;
    }
    return longReplyRequest("OrvoTSScheduleTask", "TRVX_TS_SCHEDULE", [&](OrvoLibraryConnection& c) {
        c.transfer(OrvoString(pszTaskName));
        c.transfer(OrvoString(pszAppName));
        c.transfer(OrvoString(pszAppWorkingPath));
        c.transfer(OrvoString(pszParameterString));
        // The frequency is widened without sign, the numbers with theirs.
        c.transfer(static_cast<long>(static_cast<unsigned int>(frequency)));
        c.transfer(static_cast<long>(nMonth));
        c.transfer(static_cast<long>(nDay));
        c.transfer(static_cast<long>(nYear));
        c.transfer(static_cast<long>(nHour));
        c.transfer(static_cast<long>(nMinute));
        c.transfer(static_cast<long>(nSecond));
        c.transfer(OrvoString(pszLogFileName));
    });
}

int OrvoTSScheduledTaskLookup(const char* pszTaskName) {
    return longReplyRequest("OrvoTSScheduledTaskLookup", "TRVX_TS_SCHEDULED_TASK_LOOKUP",
                            [&](OrvoLibraryConnection& c) { c.transfer(OrvoString(pszTaskName)); });
}

int OrvoTSCancelTask(int hTask) { return handleRequest("OrvoTSCancelTask", "TRVX_TS_CANCEL", hTask); }

tTaskState OrvoTSTaskState(int hTask) {
    return static_cast<tTaskState>(handleRequest("OrvoTSTaskState", "TRVX_TS_TASK_STATE", hTask));
}

int OrvoTSExitCode(int hTask) { return handleRequest("OrvoTSExitCode", "TRVX_TS_EXIT_CODE", hTask); }

int OrvoTSExecutionInformation(int hTask, char* pszDateTime, int* pnTimeSize) {
    int nResult;
    try {
        OrvoLibraryConnection connection{OrvoString(kEngineName), OrvoString("TRVX_TS_EXECUTION_INFO")};
        const int nCapacity = *pnTimeSize;
        connection.transfer(static_cast<long>(hTask));
        connection.transfer(static_cast<long>(nCapacity));
        const OrvoString sDateTime = connection.receiveString();
        if (OrvoSupport::OrvoStringToChar(sDateTime, pszDateTime, nCapacity) == nullptr) {
            nResult = -1;  // the trailing long stays unread
        } else {
            nResult = static_cast<int>(connection.receiveLong());
        }
    } catch (OrvoException& e) {
        *pnTimeSize = static_cast<int>(kExecutionInfoError.size());
        return failedExchange("OrvoTSExecutionInformation", e);
    }
    *pnTimeSize = pszDateTime != nullptr ? static_cast<int>(std::strlen(pszDateTime)) : 0;
    return nResult;
}

int OrvoTSListAllExecTasks(int* pnBufLength, char* pBuf) {
    return OrvoTSListAllTasks(OrvoString("TRVX_TS_LIST_EXEC"), pnBufLength, pBuf);
}

int OrvoTSListAllBlobTasks(int* pnBufLength, char* pBuf) {
    return OrvoTSListAllTasks(OrvoString("TRVX_TS_LIST_BLOB"), pnBufLength, pBuf);
}

int OrvoTSScheduleBlobTask(const char* pszTaskName, int nBlobLength, const char* pBlob, tTaskFrequency frequency,
                           int nGmtMonth, int nGmtDay, int nGmtYear, int nGmtHour, int nGmtMinute, int nGmtSecond) {
    // A negative length is let through: the raw transfer then reports a short count.
    if (pszTaskName == nullptr || nBlobLength == 0 || pBlob == nullptr) return -14;
    try {
        OrvoLibraryConnection connection{OrvoString(kEngineName), OrvoString("TRVX_TS_SCHEDULE_BLOB")};
        connection.transfer(OrvoString(pszTaskName));
        connection.transfer(nBlobLength);
        long nError = 0;
        if (connection.transfer(pBlob, static_cast<long>(nBlobLength), &nError) != nBlobLength) return -13;
        connection.transfer(static_cast<int>(frequency));
        connection.transfer(nGmtMonth);
        connection.transfer(nGmtDay);
        connection.transfer(nGmtYear);
        connection.transfer(nGmtHour);
        connection.transfer(nGmtMinute);
        connection.transfer(nGmtSecond);
        return static_cast<int>(connection.receiveLong());
    } catch (OrvoException& e) {
        return failedExchange("OrvoTSScheduleBlobTask", e);
    }
}

int OrvoTSScheduledTaskGetNextTime(int hTaskHandle, int* pnBufLength, char* pBuf, int* tFrequency) {
    if (pnBufLength == nullptr || *pnBufLength < 0 || pBuf == nullptr || tFrequency == nullptr) return -14;
    return textReplyRequest("OrvoTSScheduledTaskGetNextTime", OrvoString("TRVX_TS_GET_NEXT_TIME"), true,
                            hTaskHandle, pnBufLength, pBuf, tFrequency);
}

int OrvoTSRetrieveBlobTask(int hTaskHandle, int* pnBufLength, char* pBuf) {
    if (pnBufLength == nullptr || *pnBufLength < 0 || pBuf == nullptr) return -14;
    try {
        OrvoLibraryConnection connection{OrvoString(kEngineName), OrvoString("TRVX_TS_RETRIEVE_BLOB")};
        connection.transfer(static_cast<long>(hTaskHandle));
        const long nStatus = connection.receiveLong();
        if (nStatus != 0) return static_cast<int>(nStatus);
        const int nLength = connection.receiveInt();
        int nResult = -12;  // too small: the blob's bytes stay unread
        if (*pnBufLength >= nLength) {
            long nError = 0;
            const long nGot = connection.receive(pBuf, static_cast<long>(nLength), &nError, true);
            nResult = nGot != nLength ? -13 : 0;
        }
        *pnBufLength = nLength;
        return nResult;
    } catch (OrvoException& e) {
        return failedExchange("OrvoTSRetrieveBlobTask", e);
    }
}

int OrvoTSRegisterForNotification(int hTask, PFTSNotificationCallback pfNotificationCallback) {
    // Unknown tasks, finished ones and a failed query are all refused alike.
    if (OrvoTSTaskState(hTask) < 0) return -9;
    const OrvoString sEventName = KSInterface::TaskSchedulerEventName(hTask);
    // The caller's function itself is the context; nothing needs to be kept here.
    return _OrvoNNRegisterForNotification(sEventName.c_str(), OrvoTSNotificationCallback,
                                          reinterpret_cast<void*>(pfNotificationCallback));
}

int OrvoTSUnregisterForNotification(int hRegHandle) { return OrvoNNUnregisterForNotification(hRegHandle); }

}  // extern "C"

void OrvoTSNotificationCallback(const char* pszEventName, OrvoNNNotification* pNotification) {
    (void)pszEventName;
    int nState = 0;
    if (!KSInterface::familyEventCode("OrvoTSNotificationCallback", pNotification, nState)) return;
    const int hTask = static_cast<int>(std::strtol(pNotification->m_pszData, nullptr, 10));
    reinterpret_cast<PFTSNotificationCallback>(pNotification->m_pContext)(hTask, static_cast<tTaskState>(nState));
}
