package com.orvo.ksa.common.arbitration;

import com.orvo.ksa.common.NativeLibrary;

/**
 * Named locks held by the daemon, and waits for lock events.
 *
 * <p>A lock belongs to the process: it is released when the process ends.
 * Lock events: {@link #regForNotification} subscribes to a resource; each
 * {@link #waitForNotification} blocks until the resource is granted or
 * released and returns the event's lock code; {@link #stopWaitNotification}
 * (from another thread) releases the waiter.
 *
 * <p>Threads: any thread may call. A null String argument throws
 * {@link NullPointerException}; otherwise no method throws, and failures come
 * back as negative results.
 */
public class ResourceLock {
    static {
        NativeLibrary.load();
    }

    /**
     * Takes the named lock, waiting for it if it is held.
     *
     * @param resourcename the resource
     * @param nmillisec how long to wait: 0 tries once, negative waits without limit
     * @return the lock's handle (1 or more), or a negative code (-110 on time-out)
     */
    public native long resourceLock(String resourcename, int nmillisec);

    /**
     * Releases a lock.
     *
     * @param handlereslock the lock's handle
     * @return true when the lock was released, false for an unknown handle or a refusal
     */
    public native boolean resourceUnLock(long handlereslock);

    /**
     * Subscribes to a resource's lock events.
     *
     * @param jsResourceName the resource
     * @return a registration id for the resource's lock events, or a negative code
     */
    public native int regForNotification(String jsResourceName);

    /**
     * Blocks until the next lock event of the registration.
     *
     * @param hRegistration the registration id
     * @return the event's lock code, or -1 when the registration was stopped
     *         or is unknown (-1 is also the code of a lock freed because its
     *         holder ended)
     */
    public native int waitForNotification(int hRegistration);

    /**
     * Releases a waiter on the registration (after queued events) and unsubscribes.
     *
     * @param hRegistration the registration id
     */
    public native void stopWaitNotification(int hRegistration);
}
