import com.orvo.ksa.common.notificationnetwork.NNC;

import java.util.Arrays;

/**
 * Publish → waitForNotification latency of the Java bindings at a fixed
 * rate, in one JVM: a waiter thread retrieves each ticket while the main
 * thread publishes. Usage: NncBench [rate/s] [seconds].
 */
public final class NncBench {
    public static void main(String[] args) throws Exception {
        final int rate = args.length > 0 ? Integer.parseInt(args[0]) : 10000;
        final int seconds = args.length > 1 ? Integer.parseInt(args[1]) : 3;
        final int total = rate * seconds;
        final String event = "bench.nnc." + ProcessHandle.current().pid();
        final NNC nnc = new NNC();
        final int handle = nnc.regForNotification(event);
        if (handle < 0) {
            System.err.println("register failed: " + handle);
            System.exit(1);
        }
        final long[] latency = new long[total];
        final int[] received = {0};
        Thread waiter = new Thread(() -> {
            NNC box = new NNC();
            while (received[0] < total) {
                int ticket = nnc.waitForNotification(handle);
                if (ticket < 0) break;
                box.retrieve(ticket);
                latency[received[0]++] = System.nanoTime() - Long.parseLong(box.getNotificationData());
            }
        });
        waiter.start();
        final byte[] none = new byte[0];
        final long interval = 1_000_000_000L / Math.max(rate, 1);
        final long start = System.nanoTime();
        for (int i = 0; i < total; ++i) {
            long due = start + i * interval;
            while (System.nanoTime() < due) {
                Thread.onSpinWait();
            }
            NNC.NNotify(event, Long.toString(System.nanoTime()), none);
        }
        double sendSeconds = (System.nanoTime() - start) / 1e9;
        waiter.join(2000);
        nnc.stopWaitNotification(handle);
        waiter.join();
        int n = received[0];
        long[] got = Arrays.copyOf(latency, n);
        Arrays.sort(got);
        double p50 = n == 0 ? 0 : got[(int) (0.50 * (n - 1))] / 1000.0;
        double p99 = n == 0 ? 0 : got[(int) (0.99 * (n - 1))] / 1000.0;
        System.out.printf("Java NNC     rate %6d/s  sent %d in %.2f s  received %d  p50 %7.1f us  p99 %7.1f us%n",
                rate, total, sendSeconds, n, p50, p99);
        System.exit(n == total ? 0 : 2);
    }
}
