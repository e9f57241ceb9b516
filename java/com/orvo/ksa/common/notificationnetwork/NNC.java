package com.orvo.ksa.common.notificationnetwork;

import com.orvo.ksa.common.NativeLibrary;

/**
 * A client of the notification network: publishes named events and receives
 * them by polling.
 *
 * <p>Receiving: {@link #regForNotification} subscribes to an event name and
 * returns a registration id. A thread then calls {@link #waitForNotification}
 * in a loop; each call blocks until a notification for that registration
 * arrives and returns a ticket (a positive int, shared by all registrations
 * of the process: 1, 2, ...). Store the ticket in {@link #m_nTicket} of an
 * object (usually this one) and pass it to {@link #retrieveNotificationData},
 * which fills in the text, the producer's bytes and the event name; each
 * ticket can be retrieved once. Another thread ends the loop with
 * {@link #stopWaitNotification}: notifications already queued are still
 * returned, one per wait, and after them every wait returns -1.
 *
 * <p>Threads: any thread may call any method; one thread should wait on one
 * registration at a time. A retrieval is not synchronised with the waits of
 * other threads, so retrieve from the thread that waited. A null String or
 * array argument throws {@link NullPointerException}; otherwise no method
 * throws, and failures come back as negative results.
 */
public class NNC {
    static {
        NativeLibrary.load();
    }

    /** Ticket to retrieve; read by {@link #retrieveNotificationData}. */
    public int m_nTicket;

    /** Name of the event last retrieved into this object. */
    public String m_sEventName;

    private String m_sNotificationData;

    // Kept as Object: the native side hands over a primitive byte[] through a
    // method declared with Byte[], so the reference is never used as a Byte[].
    private Object m_oProducerData;

    /**
     * Subscribes to an event name.
     *
     * @param collaboratorName the event name to subscribe to
     * @return the registration id (0 or more), or the notification network's
     *         negative error code
     */
    public native int regForNotification(String collaboratorName);

    /**
     * Blocks until a notification for the registration arrives, or the
     * registration is stopped.
     *
     * @param hRegistration an id from {@link #regForNotification}
     * @return a positive ticket for {@link #retrieveNotificationData}, or -1
     *         when the wait was stopped or the id is unknown or stopped
     */
    public native int waitForNotification(int hRegistration);

    /**
     * Releases a thread blocked in {@link #waitForNotification} on this
     * registration (after the notifications already queued) and unsubscribes.
     * An unknown id is ignored.
     *
     * @param hRegistration an id from {@link #regForNotification}
     */
    public native void stopWaitNotification(int hRegistration);

    /**
     * Hands the notification of {@code obj.m_nTicket} to {@code obj}: its
     * text through {@code setNotificationData(String)}, its bytes through
     * {@code setProducerData(Byte[])} (which receives a primitive byte[]) and
     * its event name in the field {@code m_sEventName}. The ticket is then
     * forgotten; an unknown or already retrieved ticket leaves obj unchanged.
     *
     * @param obj an object with the members above, usually an NNC
     */
    public native void retrieveNotificationData(Object obj);

    /**
     * Publishes an event to its subscribers. Does not wait for delivery; the
     * result of the publication is not reported.
     *
     * @param eventName the event's name
     * @param notificationData its text
     * @param producerData its bytes (may be empty)
     */
    public static native void NNotify(String eventName, String notificationData, byte[] producerData);

    /**
     * As {@link #NNotify(String, String, byte[])} for boxed bytes; a null
     * element is sent as 0.
     *
     * @param eventName the event's name
     * @param notificationData its text
     * @param producerData its bytes (may be empty)
     */
    public static void NNotify(String eventName, String notificationData, Byte[] producerData) {
        byte[] bytes = new byte[producerData.length];
        for (int i = 0; i < bytes.length; ++i) {
            bytes[i] = producerData[i] == null ? 0 : producerData[i];
        }
        NNotify(eventName, notificationData, bytes);
    }

    /**
     * Receives the text of a retrieved notification (called by the native side).
     *
     * @param notificationData the text
     */
    public void setNotificationData(String notificationData) {
        m_sNotificationData = notificationData;
    }

    /**
     * Receives the bytes of a retrieved notification. The native side passes
     * a primitive byte[] although the parameter is declared Byte[]; it is only
     * stored here and converted by {@link #getProducerData}.
     *
     * @param producerData the bytes
     */
    public void setProducerData(Byte[] producerData) {
        m_oProducerData = producerData;
    }

    /** @return the text of the last retrieved notification, or null */
    public String getNotificationData() {
        return m_sNotificationData;
    }

    /** @return a copy of the bytes of the last retrieved notification, or null */
    public byte[] getProducerData() {
        Object raw = m_oProducerData;
        if (raw instanceof byte[]) {
            return ((byte[]) raw).clone();
        }
        if (raw instanceof Byte[]) {
            Byte[] boxed = (Byte[]) raw;
            byte[] bytes = new byte[boxed.length];
            for (int i = 0; i < bytes.length; ++i) {
                bytes[i] = boxed[i] == null ? 0 : boxed[i];
            }
            return bytes;
        }
        return null;
    }

    /** @return the event name of the last retrieved notification, or null */
    public String getEventName() {
        return m_sEventName;
    }

    /**
     * Retrieves the notification of a ticket into this object.
     *
     * @param ticket a ticket from {@link #waitForNotification}
     */
    public void retrieve(int ticket) {
        m_nTicket = ticket;
        retrieveNotificationData(this);
    }
}
