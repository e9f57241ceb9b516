package com.orvo.ksa.common;

import java.io.File;
import java.io.IOException;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.channels.SocketChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Comparator;
import java.util.stream.Stream;

/**
 * A real ksd for one test class: started on the socket path in the system
 * property ks.pipe (the JVM's KSINTF_CONN_TYPE names the same path) with a
 * fresh state directory, stopped and cleaned up by close().
 */
public final class KsdFixture implements AutoCloseable {
    private final Process process;
    private final Path root;
    private final Path log;

    public KsdFixture() throws IOException, InterruptedException {
        String ksd = System.getProperty("ks.ksd");
        String pipe = System.getProperty("ks.pipe");
        if (ksd == null || pipe == null) {
            throw new IllegalStateException("ks.ksd and ks.pipe must be set");
        }
        Files.deleteIfExists(Path.of(pipe));
        root = Files.createTempDirectory("kstest-java");
        log = root.resolve("ksd.log");
        process = new ProcessBuilder(ksd, "--foreground", "--pipe", pipe, "--state-dir",
                                     root.resolve("state").toString())
                      .redirectErrorStream(true)
                      .redirectOutput(log.toFile())
                      .redirectInput(ProcessBuilder.Redirect.from(new File("/dev/null")))
                      .start();
        // Bounded only so that a daemon that never comes up fails the test.
        for (int i = 0; i < 2000; ++i) {
            if (!process.isAlive()) {
                throw new IllegalStateException("ksd exited: " + Files.readString(log));
            }
            if (accepts(Path.of(pipe))) {
                return;
            }
            Thread.sleep(10);
        }
        process.destroyForcibly();
        throw new IllegalStateException("ksd did not accept on " + pipe);
    }

    private static boolean accepts(Path socket) {
        if (!Files.exists(socket)) {
            return false;
        }
        try (SocketChannel channel = SocketChannel.open(StandardProtocolFamily.UNIX)) {
            return channel.connect(UnixDomainSocketAddress.of(socket));
        } catch (IOException e) {
            return false;
        }
    }

    @Override
    public void close() throws IOException, InterruptedException {
        process.destroy();
        process.waitFor();
        try (Stream<Path> paths = Files.walk(root)) {
            paths.sorted(Comparator.reverseOrder()).map(Path::toFile).forEach(File::delete);
        }
    }
}
