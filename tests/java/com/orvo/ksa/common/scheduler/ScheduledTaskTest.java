package com.orvo.ksa.common.scheduler;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.orvo.ksa.common.KsdFixture;
import java.time.LocalDate;
import java.util.UUID;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** ScheduledTask against a real daemon: growing buffers, frequencies, waits. */
class ScheduledTaskTest {
    private static KsdFixture ksd;
    private static final int NEXT_YEAR = LocalDate.now().getYear() + 1;

    @BeforeAll
    static void startDaemon() throws Exception {
        ksd = new KsdFixture();
    }

    @AfterAll
    static void stopDaemon() throws Exception {
        if (ksd != null) {
            ksd.close();
        }
    }

    private static int scheduleBlob(String name, byte[] blob, int frequency) {
        return new ScheduledTask().scheduleBlob(name, blob, frequency, 6, 15, NEXT_YEAR, 12, 30, 0);
    }

    @Test
    void blobsOfTheFirstBufferSizeAndBeyondComeBackWhole() {
        byte[] exact = new byte[8192];
        byte[] larger = new byte[20000];
        for (int i = 0; i < larger.length; ++i) {
            larger[i] = (byte) (i * 31 + 7);
        }
        System.arraycopy(larger, 0, exact, 0, exact.length);
        int hExact = scheduleBlob("java-blob-exact-" + UUID.randomUUID(), exact, ScheduledTask.ONE_TIME);
        int hLarger = scheduleBlob("java-blob-large-" + UUID.randomUUID(), larger, ScheduledTask.WEEKLY);
        assertTrue(hExact > 0 && hLarger > 0, hExact + ", " + hLarger);

        assertArrayEquals(exact, new ScheduledTask(hExact).getBlob());
        assertArrayEquals(larger, new ScheduledTask(hLarger).getBlob());
        assertEquals(ScheduledTask.ONE_TIME, new ScheduledTask(hExact).getTaskFrequency());
        assertEquals(ScheduledTask.WEEKLY, new ScheduledTask(hLarger).getTaskFrequency());
        String next = new ScheduledTask(hLarger).getNextScheduledTime();
        assertNotNull(next);
        assertTrue(next.matches("\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}"), next);
    }

    @Test
    void aListLongerThanTheFirstBufferIsFetchedWhole() {
        String prefix = "java-list-" + UUID.randomUUID() + "-";
        String padding = "x".repeat(150);
        int count = 60;
        for (int i = 0; i < count; ++i) {
            assertTrue(scheduleBlob(prefix + i + padding, new byte[] {1}, ScheduledTask.DAILY) > 0);
        }
        String list = ScheduledTask.listAllBlobTasks();
        assertNotNull(list);
        assertTrue(list.length() > 8191, "list of " + list.length());
        for (int i = 0; i < count; ++i) {
            assertTrue(list.contains(prefix + i + padding), "task " + i + " missing");
        }
        assertNotNull(ScheduledTask.listAllExecTasks());
    }

    @Test
    void unknownTasksAndStoppedWaits() throws Exception {
        ScheduledTask unknown = new ScheduledTask(987654321);
        assertNull(unknown.getNextScheduledTime());
        assertEquals(-1, unknown.getTaskFrequency());
        assertNull(unknown.getBlob());
        assertEquals(-2, unknown.scheduledTaskLookup("java-no-such-task-" + UUID.randomUUID()));
        assertEquals("", unknown.OrvoTSExecutionDate(987654321, 64));

        String name = "java-cancel-" + UUID.randomUUID();
        int h = scheduleBlob(name, new byte[] {9}, ScheduledTask.MONTHLY);
        assertTrue(h > 0);
        assertEquals(h, unknown.scheduledTaskLookup(name));
        assertEquals(ScheduledTask.STATE_WAITING, unknown.OrvoTSTaskState(h));

        ScheduledTask task = new ScheduledTask(h);
        int reg = task.regForNotification(h);
        assertTrue(reg >= 0, "registration " + reg);
        task.cancelTask(h);
        // Cancelling publishes the state change to cExit.
        assertEquals(ScheduledTask.STATE_EXIT, task.waitForNotification(reg));

        AtomicInteger result = new AtomicInteger(0);
        Thread waiter = new Thread(() -> result.set(task.waitForNotification(reg)));
        waiter.start();
        Thread.sleep(200);
        task.stopWaitNotification(reg);
        waiter.join();
        assertEquals(-1, result.get());
        assertEquals(-1, task.waitForNotification(reg));
    }
}
