package com.orvo.ksa.common.jobstatus;

import com.orvo.ksa.common.NativeLibrary;

/**
 * Jobs tracked by the daemon: a name, a description, a progress 0-100 and
 * mapped application ids, and waits for a job's events.
 *
 * <p>Results: ids are 1 or more; negative values are error codes (-2 unknown
 * job, -17 duplicate name, -22 progress out of range, -1 another user's job,
 * or minus a connection failure's code). Events: {@link #regForNotification}
 * subscribes to a job name; each {@link #waitForNotification} blocks and
 * returns the event code (see the EVENT_ constants); {@link #stopWaitNotification}
 * (from another thread) releases the waiter.
 *
 * <p>Threads: any thread may call. A null String or array argument throws
 * {@link NullPointerException}; otherwise no method throws, and failures come
 * back as negative results.
 */
public class Job {
    static {
        NativeLibrary.load();
    }

    /** Job deleted; also what a stopped wait returns. */
    public static final int EVENT_EXIT = -1;
    /** Progress reached 100. */
    public static final int EVENT_COMPLETED = 0;
    /** Job cancelled. */
    public static final int EVENT_CANCELLED = 1;
    /** Job created. */
    public static final int EVENT_CREATED = 2;
    /** Progress changed. */
    public static final int EVENT_UPDATED = 3;

    /** Creates nothing by itself: each method is one request to the daemon. */
    public Job() {}

    /**
     * Creates a job.
     *
     * @param jsJobDescription free text describing the job
     * @param jsJobName the job's name, unique among live jobs
     * @return the new job's id, or a negative code
     */
    public native int create(String jsJobDescription, String jsJobName);

    /**
     * Finds a live job by name.
     *
     * @param jsJobName the job's name
     * @return the id of the live job with this name, or a negative code
     */
    public native int lookup(String jsJobName);

    /**
     * Maps application ids to the job. Each call leaks a copy of the array's
     * elements in the virtual machine: do not call it in a tight loop.
     *
     * @param iJobId the job's id
     * @param jaiAppId the application ids
     * @return 0, or a negative code
     */
    public native int mapAppJob(int iJobId, int[] jaiAppId);

    /**
     * Deletes a job.
     *
     * @param iJobId the job's id
     * @return 0, or a negative code
     */
    public native int delete(int iJobId);

    /**
     * Sets a job's progress; 100 completes it.
     *
     * @param iJobId the job's id
     * @param iProgress the progress, 0 to 100
     * @return 0, or a negative code
     */
    public native int setProgress(int iJobId, int iProgress);

    /**
     * Reads a job's progress.
     *
     * @param iJobId the job's id
     * @return the job's progress, or a negative code
     */
    public native int getProgress(int iJobId);

    /**
     * Cancels a job.
     *
     * @param iJobId the job's id
     * @return 0, or a negative code
     */
    public native int cancel(int iJobId);

    /**
     * Subscribes to a job's events.
     *
     * @param jsJobName the job's name
     * @return a registration id for the job's events, or a negative code
     */
    public native int regForNotification(String jsJobName);

    /**
     * Blocks until the registration's next event.
     *
     * @param hRegistration the registration id
     * @return the next event code of the registration, or -1 when stopped or unknown
     */
    public native int waitForNotification(int hRegistration);

    /**
     * Releases a waiter on the registration (after queued events) and unsubscribes.
     *
     * @param hRegistration the registration id
     */
    public native void stopWaitNotification(int hRegistration);
}
