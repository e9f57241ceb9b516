package com.orvo.ksa.common.jobstatus;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.orvo.ksa.common.KsdFixture;
import com.orvo.ksa.common.arbitration.ResourceLock;
import java.util.UUID;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** Job and ResourceLock against a real daemon: requests and event waits. */
class JobAndLockTest {
    private static KsdFixture ksd;

    @BeforeAll
    static void startDaemon() throws Exception {
        ksd = new KsdFixture();
    }

    @AfterAll
    static void stopDaemon() throws Exception {
        ksd.close();
    }

    @Test
    void jobRequestsAndTheirEventCodes() {
        Job job = new Job();
        String name = "java-job-" + UUID.randomUUID();
        int h = job.regForNotification(name);
        assertTrue(h >= 0, "registration " + h);

        int id = job.create("a description", name);
        assertTrue(id > 0, "job id " + id);
        assertEquals(-17, job.create("again", name));
        assertEquals(id, job.lookup(name));
        assertEquals(0, job.mapAppJob(id, new int[0]));
        assertEquals(0, job.mapAppJob(id, new int[] {11, 12}));
        assertEquals(0, job.setProgress(id, 40));
        assertEquals(40, job.getProgress(id));
        assertEquals(-22, job.setProgress(id, 101));
        assertEquals(0, job.cancel(id));
        assertEquals(0, job.delete(id));
        assertEquals(-2, job.getProgress(id));

        assertEquals(Job.EVENT_CREATED, job.waitForNotification(h));
        assertEquals(Job.EVENT_UPDATED, job.waitForNotification(h));
        assertEquals(Job.EVENT_CANCELLED, job.waitForNotification(h));
        assertEquals(Job.EVENT_EXIT, job.waitForNotification(h));
        job.stopWaitNotification(h);
        assertEquals(-1, job.waitForNotification(h));
        assertEquals(-1, job.waitForNotification(987654321));
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
    void jobWaitIsReleasedByAStopFromAnotherThread() throws Exception {
        Job job = new Job();
        int h = job.regForNotification("java-job-idle-" + UUID.randomUUID());
        AtomicInteger result = new AtomicInteger(0);
        Thread waiter = new Thread(() -> result.set(job.waitForNotification(h)));
        waiter.start();
        Thread.sleep(200);
        job.stopWaitNotification(h);
        waiter.join();
        assertEquals(-1, result.get());
    }

    @Test
    void lockRequestsAndTheirLockCodes() throws Exception {
        ResourceLock lock = new ResourceLock();
        String resource = "java-res-" + UUID.randomUUID();
        int h = lock.regForNotification(resource);
        assertTrue(h >= 0, "registration " + h);

        long handle = lock.resourceLock(resource, 0);
        assertTrue(handle > 0, "handle " + handle);
        assertEquals(-110, lock.resourceLock(resource, 0));
        assertTrue(lock.resourceUnLock(handle));
        assertFalse(lock.resourceUnLock(handle));

        assertEquals(1, lock.waitForNotification(h));
        assertEquals(0, lock.waitForNotification(h));

        AtomicInteger result = new AtomicInteger(0);
        Thread waiter = new Thread(() -> result.set(lock.waitForNotification(h)));
        waiter.start();
        Thread.sleep(200);
        lock.stopWaitNotification(h);
        waiter.join();
        assertEquals(-1, result.get());
        assertEquals(-1, lock.waitForNotification(987654321));
    }
}
