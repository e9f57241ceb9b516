#ifndef ORVO_NOTIFICATION_NETWORK_H
#define ORVO_NOTIFICATION_NETWORK_H

/* Publish/subscribe client of the daemon's notification network.

   Results common to every function here: a negative value is minus the
   errno of a failed exchange with the daemon (-111 ECONNREFUSED when it is not
   running, -104 ECONNRESET when it closed mid-reply, -110 ETIMEDOUT, or the
   code of an error value it sent); other values are the daemon's answer,
   passed through unchanged, so the two ranges can coincide. A null name or
   text is a caller error: it raises the C++ standard logic error.

   Callbacks run on the library's one callback thread, never on the caller's,
   one at a time; a callback that blocks holds up every later notification. */

#ifndef KSINTF_API
#define KSINTF_API __attribute__((visibility("default")))
#endif

typedef struct _OrvoNNNotification {
    const char* m_pszData; /* XML text, NUL-terminated */
    void* m_pData;         /* binary payload */
    long m_nDataLength;    /* payload length in bytes */
    void* m_pContext;      /* the subscriber's context, filled on delivery */
} OrvoNNNotification;

/* Called with the event name and the notification. Both, and every buffer
   the record points to, are the library's and valid only during the call:
   copy what you keep. */
typedef void (*PFNNNotificationCallback)(const char* pszEventName, OrvoNNNotification* pNotification);

#ifdef __cplusplus
extern "C" {
#endif

/* Subscribes pfNotificationCallback to pszEventName; pContext comes back in
   each record's m_pContext. Returns the registration handle (positive), -2
   for a name starting with a family's reserved prefix ("OrvoRAEvent",
   "OrvoJSEvent", "OrvoTSEvent"), the daemon's refusal, or minus an errno. */
KSINTF_API int OrvoNNRegisterForNotification(const char* pszEventName, PFNNNotificationCallback pfNotificationCallback,
                                             void* pContext);
/* Ends a subscription. Returns 0, after which its callback is never called
   again; else the daemon's non-zero status or minus an errno, and the
   subscription stays in place. */
KSINTF_API int OrvoNNUnregisterForNotification(int hRegistration);
/* Publishes m_pszData and the m_nDataLength bytes at m_pData (both stay the
   caller's; m_pContext is ignored) under pszEventName, over the library's
   shared connection, one publication at a time. Returns the daemon's answer
   or minus an errno (-90 EMSGSIZE for a text or payload over the wire's limit). */
KSINTF_API int OrvoNNNotify(const char* pszEventName, OrvoNNNotification* pNotification);

#ifdef __cplusplus
}
#endif

#endif
