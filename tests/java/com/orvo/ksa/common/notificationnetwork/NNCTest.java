package com.orvo.ksa.common.notificationnetwork;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.orvo.ksa.common.KsdFixture;
import java.util.UUID;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.MethodOrderer;
import org.junit.jupiter.api.Order;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestMethodOrder;

@TestMethodOrder(MethodOrderer.OrderAnnotation.class)
class NNCTest {
    private static KsdFixture ksd;

    @BeforeAll
    static void startDaemon() throws Exception {
        ksd = new KsdFixture();
    }

    @AfterAll
    static void stopDaemon() throws Exception {
        ksd.close();
    }

    private static String eventName(String what) {
        return "java.nnc." + what + "." + UUID.randomUUID();
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

    @Test
    @Order(1)
    void ticketsCountFromOneAndEachIsRetrievedOnce() {
        NNC nnc = new NNC();
        String event = eventName("tickets");
        int h = nnc.regForNotification(event);
        assertTrue(h >= 0, "registration id " + h);
        byte[] first = {0, 1, (byte) 0x80, (byte) 0xff, 'x'};
        NNC.NNotify(event, "<first/>", first);
        NNC.NNotify(event, "<second/>", new Byte[] {7, null, -2});

        assertEquals(1, nnc.waitForNotification(h));
        assertEquals(2, nnc.waitForNotification(h));

        // Retrieval by ticket, not by order of arrival.
        NNC second = new NNC();
        second.retrieve(2);
        assertEquals("<second/>", second.getNotificationData());
        assertArrayEquals(new byte[] {7, 0, -2}, second.getProducerData());
        assertEquals(event, second.getEventName());

        NNC one = new NNC();
        one.retrieve(1);
        assertEquals("<first/>", one.getNotificationData());
        assertArrayEquals(first, one.getProducerData());
        assertEquals(event, one.getEventName());

        NNC again = new NNC();
        again.retrieve(1);
        assertNull(again.getNotificationData());
        assertNull(again.getProducerData());
        assertNull(again.getEventName());

        nnc.stopWaitNotification(h);
        assertEquals(-1, nnc.waitForNotification(h));
    }

    @Test
    void stopReleasesAWaitBlockedInAnotherThread() throws Exception {
        NNC nnc = new NNC();
        int h = nnc.regForNotification(eventName("stop"));
        assertTrue(h >= 0);
        AtomicInteger result = new AtomicInteger(0);
        Thread waiter = new Thread(() -> result.set(nnc.waitForNotification(h)));
        waiter.start();
        // Gives the waiter time to block; it returns -1 whether or not it did.
        Thread.sleep(200);
        nnc.stopWaitNotification(h);
        waiter.join();
        assertEquals(-1, result.get());
    }

    @Test
    void aStoppedRegistrationAnswersMinusOneWithNotificationsPending() {
        NNC nnc = new NNC();
        String stopped = eventName("pending");
        String marker = eventName("marker");
        int h = nnc.regForNotification(stopped);
        int hMarker = nnc.regForNotification(marker);
        assertTrue(h >= 0 && hMarker >= 0);
        NNC.NNotify(stopped, "a", new byte[] {1});
        NNC.NNotify(marker, "m", new byte[0]);
        // Deliveries to one process keep publication order: once the marker
        // is here, the earlier notification is queued too.
        int ticket = nnc.waitForNotification(hMarker);
        assertTrue(ticket > 0);
        nnc.stopWaitNotification(h);
        assertEquals(-1, nnc.waitForNotification(h));
        // The other registration goes on.
        NNC.NNotify(marker, "m2", new byte[0]);
        int next = nnc.waitForNotification(hMarker);
        assertTrue(next > ticket, ticket + ", " + next);
        nnc.retrieve(next);
        assertEquals("m2", nnc.getNotificationData());
        nnc.stopWaitNotification(hMarker);
    }

    @Test
    void unknownRegistrationsAndMissingMembers() {
        NNC nnc = new NNC();
        assertEquals(-1, nnc.waitForNotification(987654321));
        nnc.stopWaitNotification(987654321);

        String event = eventName("textonly");
        int h = nnc.regForNotification(event);
        NNC.NNotify(event, "only text", new byte[] {3});
        int ticket = nnc.waitForNotification(h);
        assertTrue(ticket > 0);
        TextOnly target = new TextOnly();
        target.m_nTicket = ticket;
        nnc.retrieveNotificationData(target);
        assertEquals("only text", target.text);
        assertNull(target.m_sEventName);
        nnc.stopWaitNotification(h);
    }
}
