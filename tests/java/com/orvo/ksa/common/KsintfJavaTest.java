package com.orvo.ksa.common;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.orvo.ksa.common.arbitration.ResourceLock;
import com.orvo.ksa.common.jobstatus.Job;
import com.orvo.ksa.common.notificationnetwork.NNC;
import com.orvo.ksa.common.scheduler.ScheduledTask;
import java.time.LocalDate;
import java.util.UUID;
import org.junit.jupiter.api.MethodOrderer;
import org.junit.jupiter.api.Order;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestMethodOrder;

/**
 * The natives behind ksintf.jar in a real JVM against a real ksd (the one the
 * JVM's KSINTF_CONN_TYPE names): Java values in and out, growing buffers,
 * reflection, exceptions.
 */
@TestMethodOrder(MethodOrderer.OrderAnnotation.class)
class KsintfJavaTest {
    private static final int NEXT_YEAR = LocalDate.now().getYear() + 1;

    private static String unique(String what) {
        return "java-" + what + "-" + UUID.randomUUID();
    }

    /** An object with the members retrieval fills, except setProducerData. */
    public static class TextOnly {
        public int m_nTicket;
        public String m_sEventName;
        public String text;

        public void setNotificationData(String s) {
            text = s;
        }
    }

    private static void assertRetrieved(int ticket, String text, byte[] data, String event) {
        NNC nnc = new NNC();
        nnc.retrieve(ticket);
        assertEquals(text, nnc.getNotificationData());
        assertArrayEquals(data, nnc.getProducerData());
        assertEquals(event, nnc.getEventName());
    }

    @Test
    @Order(1)
    void notificationTicketsCountFromOneAndEachIsRetrievedOnceIntoWhatMembersThereAre() {
        NNC nnc = new NNC();
        String event = unique("tickets");
        String marker = unique("marker");
        int h = nnc.regForNotification(event);
        int hMarker = nnc.regForNotification(marker);
        assertTrue(h >= 0 && hMarker >= 0, h + ", " + hMarker);
        byte[] first = {0, 1, (byte) 0x80, (byte) 0xff, 'x'};
        NNC.NNotify(event, "<first/>", first);
        NNC.NNotify(event, "<second/>", new Byte[] {7, null, -2});
        NNC.NNotify(event, "<pending/>", new byte[0]);
        NNC.NNotify(marker, "m", new byte[0]);

        assertEquals(1, nnc.waitForNotification(h));
        assertEquals(2, nnc.waitForNotification(h));
        // Deliveries to one process keep publication order: with the marker here, the third is queued too.
        assertEquals(3, nnc.waitForNotification(hMarker));
        nnc.stopWaitNotification(h);
        assertEquals(-1, nnc.waitForNotification(h), "a stopped registration with a notification pending");

        // Retrieval by ticket, not by order of arrival; a ticket is gone once retrieved.
        assertRetrieved(2, "<second/>", new byte[] {7, 0, -2}, event);
        assertRetrieved(1, "<first/>", first, event);
        assertRetrieved(1, null, null, null);

        // Retrieval into an object that lacks some of the members.
        TextOnly target = new TextOnly();
        target.m_nTicket = 3;
        nnc.retrieveNotificationData(target);
        assertEquals("m", target.text);
        assertNull(target.m_sEventName);
        nnc.stopWaitNotification(hMarker);
    }

    @Test
    void jobRequestsAndTheirEventCodes() {
        Job job = new Job();
        String name = unique("job");
        int h = job.regForNotification(name);
        assertTrue(h >= 0, "registration " + h);

        int id = job.create("a description", name);
        assertTrue(id > 0, "job id " + id);
        assertEquals(id, job.lookup(name));
        assertEquals(0, job.mapAppJob(id, new int[0]));
        assertEquals(0, job.mapAppJob(id, new int[] {11, 12}));
        assertEquals(0, job.setProgress(id, 40));
        assertEquals(40, job.getProgress(id));
        assertEquals(0, job.cancel(id));
        assertEquals(0, job.delete(id));
        assertEquals(-2, job.getProgress(id));

        assertEquals(Job.EVENT_CREATED, job.waitForNotification(h));
        assertEquals(Job.EVENT_UPDATED, job.waitForNotification(h));
        assertEquals(Job.EVENT_CANCELLED, job.waitForNotification(h));
        assertEquals(Job.EVENT_EXIT, job.waitForNotification(h));
        job.stopWaitNotification(h);
        assertEquals(-1, job.waitForNotification(h));
    }

    @Test
    void aNullStringThrowsNullPointerExceptionInsteadOfReachingC() {
        Job job = new Job();
        assertThrows(NullPointerException.class, () -> job.create(null, "java-null-description"));
        assertThrows(NullPointerException.class, () -> job.create("a description", null));
        assertThrows(NullPointerException.class, () -> new ResourceLock().resourceLock(null, 0));
        assertEquals(-2, job.lookup("java-null-description"), "nothing was created");
    }

    @Test
    void lockRequestsAndTheirLockCodes() {
        ResourceLock lock = new ResourceLock();
        String resource = unique("res");
        int h = lock.regForNotification(resource);
        assertTrue(h >= 0, "registration " + h);

        long handle = lock.resourceLock(resource, 0);
        assertTrue(handle > 0, "handle " + handle);
        assertEquals(-110, lock.resourceLock(resource, 0));
        assertTrue(lock.resourceUnLock(handle));
        assertFalse(lock.resourceUnLock(handle));

        assertEquals(1, lock.waitForNotification(h));
        assertEquals(0, lock.waitForNotification(h));
        lock.stopWaitNotification(h);
        assertEquals(-1, lock.waitForNotification(h));
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
        int hExact = scheduleBlob(unique("blob-exact"), exact, ScheduledTask.ONE_TIME);
        int hLarger = scheduleBlob(unique("blob-large"), larger, ScheduledTask.WEEKLY);
        assertTrue(hExact > 0 && hLarger > 0, hExact + ", " + hLarger);

        assertArrayEquals(exact, new ScheduledTask(hExact).getBlob());
        assertArrayEquals(larger, new ScheduledTask(hLarger).getBlob());
        assertEquals(ScheduledTask.WEEKLY, new ScheduledTask(hLarger).getTaskFrequency());
        String next = new ScheduledTask(hLarger).getNextScheduledTime();
        assertNotNull(next);
        assertTrue(next.matches("\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}"), next);
    }

    @Test
    void unknownTasksListsAndTheCancelEvent() {
        ScheduledTask unknown = new ScheduledTask(987654321);
        assertNull(unknown.getNextScheduledTime());
        assertEquals(-1, unknown.getTaskFrequency());
        assertNull(unknown.getBlob());
        assertEquals(-2, unknown.scheduledTaskLookup(unique("no-such-task")));
        assertEquals("", unknown.OrvoTSExecutionDate(987654321, 64));

        String name = unique("cancel");
        int h = scheduleBlob(name, new byte[] {9}, ScheduledTask.MONTHLY);
        assertTrue(h > 0);
        assertEquals(h, unknown.scheduledTaskLookup(name));
        assertTrue(ScheduledTask.listAllBlobTasks().contains(name));
        assertNotNull(ScheduledTask.listAllExecTasks());
        assertEquals(ScheduledTask.STATE_WAITING, unknown.OrvoTSTaskState(h));

        ScheduledTask task = new ScheduledTask(h);
        int reg = task.regForNotification(h);
        assertTrue(reg >= 0, "registration " + reg);
        task.cancelTask(h);
        // Cancelling publishes the state change to cExit.
        assertEquals(ScheduledTask.STATE_EXIT, task.waitForNotification(reg));
        task.stopWaitNotification(reg);
        assertEquals(-1, task.waitForNotification(reg));
    }
}
