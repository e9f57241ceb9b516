package com.orvo.ksa.common.scheduler;

import com.orvo.ksa.common.NativeLibrary;

/**
 * The task scheduler: programs and stored byte blobs run at a date, daily,
 * weekly, monthly or at boot, and waits for a task's state changes.
 *
 * <p>Methods that work on "this" task ({@link #getNextScheduledTime},
 * {@link #getTaskFrequency}, {@link #getBlob}) use the field {@link #n_TaskId};
 * set it to a handle from {@link #scheduleTask}, {@link #scheduleBlob} or
 * {@link #scheduledTaskLookup}. Negative int results are error codes (for
 * example -2 unknown task, -17 duplicate name, -22 invalid date, or minus a
 * connection failure's code). Several methods print a trace line to the
 * process's standard output.
 *
 * <p>Threads: any thread may call; {@link #waitForNotification} blocks and is
 * released by {@link #stopWaitNotification} from another thread. Null
 * arguments are not allowed. No method throws a Java exception of its own.
 */
public class ScheduledTask {
    static {
        NativeLibrary.load();
    }

    /** Run once, at the date given. */
    public static final int ONE_TIME = 3;
    /** Run every day at the time given. */
    public static final int DAILY = 0;
    /** Run every week, from the date given. */
    public static final int WEEKLY = 1;
    /** Run every month on the day given (the last day of shorter months). */
    public static final int MONTHLY = 2;
    /** Run at each start of the daemon. */
    public static final int BOOT_TIME = 4;

    /** Task states returned by {@link #OrvoTSTaskState} and {@link #waitForNotification}. */
    public static final int STATE_EXIT = -1;
    public static final int STATE_IN_PROGRESS = 0;
    public static final int STATE_COMPLETED = 1;
    public static final int STATE_WAITING = 2;

    /** The task this object stands for. */
    public int n_TaskId;

    /** A task object for no task yet. */
    public ScheduledTask() {}

    /** A task object for the given handle. */
    public ScheduledTask(int taskId) {
        n_TaskId = taskId;
    }

    /**
     * Schedules a program in local time. Prints "TASKSCHEDULE : ...".
     *
     * @return the new task's handle, or a negative code
     */
    public native int scheduleTask(String taskname, String appname, String appworkpath, String parastr,
                                   int frequency, int month, int day, int year, int hour, int minute, int sec,
                                   String logfilename);

    /** @return the handle of the task with this name, or a negative code. Prints "LOOKUP : ...". */
    public native int scheduledTaskLookup(String taskname);

    /** Cancels a task; the result is only printed ("TASKCANCEL : ..."). */
    public native void cancelTask(int taskid);

    /** @return the task's state (see STATE_*), or a negative code */
    public native int OrvoTSTaskState(int taskid);

    /** @return the exit status of the task's last run, or a negative code (-61: never ran) */
    public native int OrvoTSExitCode(int taskid);

    /**
     * Asks for the execution information without a date buffer, so the date
     * itself never comes back: the result is an empty string whenever the
     * reported size is 30 or less, which includes every failure. Prints
     * "TASKEXECUTIONINFO : ...".
     */
    public native String OrvoTSExecutionDate(int taskid, int timesize);

    /**
     * Subscribes to the task's state changes.
     *
     * @return a registration id for {@link #waitForNotification}, or a negative code
     */
    public native int regForNotification(int taskid);

    /**
     * Blocks until the task's state changes or the registration is stopped.
     *
     * @return the new state; -1 both for {@link #STATE_EXIT} and for a stopped
     *         or unknown registration
     */
    public native int waitForNotification(int hRegistration);

    /** Releases a waiter on the registration (after queued changes) and unsubscribes. */
    public native void stopWaitNotification(int hRegistration);

    /** @return the next run time of {@link #n_TaskId} as "YYYY-MM-DD HH:MM:SS", or null on failure */
    public native String getNextScheduledTime();

    /** @return the frequency of {@link #n_TaskId} (see the constants), or -1 when it could not be fetched */
    public native int getTaskFrequency();

    /**
     * Stores a blob to be "run" at the given GMT date and frequency.
     *
     * @return the new task's handle, or a negative code (-14 for an empty blob)
     */
    public native int scheduleBlob(String taskname, byte[] blob, int frequency, int month, int day, int year,
                                   int hour, int minute, int sec);

    /** @return every program task, one line each, or null on failure */
    public static native String listAllExecTasks();

    /** @return every blob task, one line each, or null on failure */
    public static native String listAllBlobTasks();

    /** @return the blob of {@link #n_TaskId}, or null on failure */
    public native byte[] getBlob();
}
