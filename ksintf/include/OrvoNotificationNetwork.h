#ifndef ORVO_NOTIFICATION_NETWORK_H
#define ORVO_NOTIFICATION_NETWORK_H

/* Publish/subscribe client of the daemon's notification network. */

#ifndef KSINTF_API
#define KSINTF_API __attribute__((visibility("default")))
#endif

typedef struct _OrvoNNNotification {
    const char* m_pszData; /* XML text, NUL-terminated */
    void* m_pData;         /* binary payload */
    long m_nDataLength;    /* payload length in bytes */
    void* m_pContext;      /* the subscriber's context, filled on delivery */
} OrvoNNNotification;

typedef void (*PFNNNotificationCallback)(const char* pszEventName, OrvoNNNotification* pNotification);

#ifdef __cplusplus
extern "C" {
#endif

KSINTF_API int OrvoNNRegisterForNotification(const char* pszEventName, PFNNNotificationCallback pfNotificationCallback,
                                             void* pContext);
KSINTF_API int OrvoNNUnregisterForNotification(int hRegistration);
KSINTF_API int OrvoNNNotify(const char* pszEventName, OrvoNNNotification* pNotification);

#ifdef __cplusplus
}
#endif

#endif
