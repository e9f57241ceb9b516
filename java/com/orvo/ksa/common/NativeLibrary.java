package com.orvo.ksa.common;

import java.io.File;

/**
 * Loads {@code libksintf.so.3}, the native library behind the classes of this
 * package, once per class loader.
 *
 * <p>Where it is looked for, in order: the path in the system property
 * {@code ksintf.library}; {@code libksintf.so.3} in each directory of
 * {@code java.library.path}; finally {@code System.loadLibrary("ksintf")}
 * (which needs the development link {@code libksintf.so}).
 */
public final class NativeLibrary {
    private static boolean loaded;

    private NativeLibrary() {}

    /**
     * Loads the library unless that was done already.
     *
     * @throws UnsatisfiedLinkError when it cannot be found or loaded
     */
    public static synchronized void load() {
        if (loaded) {
            return;
        }
        String explicit = System.getProperty("ksintf.library");
        if (explicit != null && !explicit.isEmpty()) {
            System.load(explicit);
        } else {
            File found = null;
            String path = System.getProperty("java.library.path", "");
            for (String dir : path.split(File.pathSeparator)) {
                File candidate = new File(dir, "libksintf.so.3");
                if (!dir.isEmpty() && candidate.isFile()) {
                    found = candidate;
                    break;
                }
            }
            if (found != null) {
                System.load(found.getAbsolutePath());
            } else {
                System.loadLibrary("ksintf");
            }
        }
        loaded = true;
    }
}
