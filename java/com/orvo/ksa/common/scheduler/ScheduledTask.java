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
 * connection failure's code). Trace records go to the library's log
 * (OSUPT_LOG_LEVEL 9), never to the process's standard output.
 *
 * <p>Threads: any thread may call; {@link #waitForNotification} blocks and is
 * released by {@link #stopWaitNotification} from another thread. A null
 * String or array argument throws {@link NullPointerException}; otherwise no
 * method throws.
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

    /** Could not run, or cancelled; states are returned by {@link #OrvoTSTaskState} and {@link #waitForNotification}. */
    public static final int STATE_EXIT = -1;
    /** Running. */
    public static final int STATE_IN_PROGRESS = 0;
    /** Ran (a recurring task then waits again). */
    public static final int STATE_COMPLETED = 1;
    /** Waiting until due. */
    public static final int STATE_WAITING = 2;

    /** The task this object stands for. */
    public int n_TaskId;

    /** A task object for no task yet. */
    public ScheduledTask() {}

    /**
     * A task object for the given handle.
     *
     * @param taskId the task's handle
     */
    public ScheduledTask(int taskId) {
        n_TaskId = taskId;
    }

    /**
     * Schedules a program in local time.
     *
     * @param taskname the task's name, unique among tasks
     * @param appname the program
     * @param appworkpath its working directory
     * @param parastr its arguments in one string, split with shell-like quoting
     * @param frequency one of the frequency constants
     * @param month the month of the first run, 1 to 12
     * @param day its day of the month
     * @param year its year
     * @param hour its hour, 0 to 23
     * @param minute its minute
     * @param sec its second
     * @param logfilename the file the program's output is appended to, or ""
     * @return the new task's handle, or a negative code
     */
    public native int scheduleTask(String taskname, String appname, String appworkpath, String parastr,
                                   int frequency, int month, int day, int year, int hour, int minute, int sec,
                                   String logfilename);

    /**
     * Finds a task by name.
     *
     * @param taskname the task's name
     * @return the handle of the task with this name, or a negative code
     */
    public native int scheduledTaskLookup(String taskname);

    /**
     * Cancels a task; the result goes only to the library's log.
     *
     * @param taskid the task's handle
     */
    public native void cancelTask(int taskid);

    /**
     * Reads a task's state.
     *
     * @param taskid the task's handle
     * @return the task's state (see STATE_*), or a negative code
     */
    public native int OrvoTSTaskState(int taskid);

    /**
     * Reads the exit status of a task's last run.
     *
     * @param taskid the task's handle
     * @return the exit status of the task's last run, or a negative code (-61: never ran)
     */
    public native int OrvoTSExitCode(int taskid);

    /**
     * Asks for the execution information without a date buffer, so the date
     * itself never comes back: the result is an empty string whenever the
     * reported size is 30 or less, which includes every failure.
     *
     * @param taskid the task's handle
     * @param timesize the capacity to report
     * @return an empty string, or the date when one could come back
     */
    public native String OrvoTSExecutionDate(int taskid, int timesize);

    /**
     * Subscribes to the task's state changes.
     *
     * @param taskid the task's handle
     * @return a registration id for {@link #waitForNotification}, or a negative code
     */
    public native int regForNotification(int taskid);

    /**
     * Blocks until the task's state changes or the registration is stopped.
     *
     * @param hRegistration the registration id
     * @return the new state; -1 both for {@link #STATE_EXIT} and for a stopped
     *         or unknown registration
     */
    public native int waitForNotification(int hRegistration);

    /**
     * Releases a waiter on the registration (after queued changes) and unsubscribes.
     *
     * @param hRegistration the registration id
     */
    public native void stopWaitNotification(int hRegistration);

    /** @return the next run time of {@link #n_TaskId} as "YYYY-MM-DD HH:MM:SS", or null on failure */
    public native String getNextScheduledTime();

    /** @return the frequency of {@link #n_TaskId} (see the constants), or -1 when it could not be fetched */
    public native int getTaskFrequency();

    /**
     * Stores a blob to be "run" at the given GMT date and frequency.
     *
     * @param taskname the task's name, unique among tasks
     * @param blob the bytes to keep
     * @param frequency one of the frequency constants
     * @param month the month of the due date, 1 to 12 (GMT)
     * @param day its day of the month
     * @param year its year
     * @param hour its hour, 0 to 23
     * @param minute its minute
     * @param sec its second
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
