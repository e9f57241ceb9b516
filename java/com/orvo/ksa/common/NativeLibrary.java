package com.orvo.ksa.common;

import java.io.File;
import java.io.IOException;
import java.net.URISyntaxException;
import java.security.CodeSource;
import java.util.jar.JarFile;
import java.util.jar.Manifest;

/**
 * Loads {@code libksintf.so.3}, the native library behind the classes of this
 * package, once per class loader.
 *
 * <p>Where it is looked for, in order: the path in the system property
 * {@code ksintf.library}; {@code libksintf.so.3} in each directory of
 * {@code java.library.path}; the library of the prefix this jar is installed
 * in (its manifest's {@code Ksintf-Native-Library}, relative to the jar);
 * finally {@code System.loadLibrary("ksintf")} (which needs the development
 * link {@code libksintf.so}).
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
            File found = onLibraryPath();
            if (found == null) {
                found = besideJar();
            }
            if (found != null) {
                System.load(found.getAbsolutePath());
            } else {
                System.loadLibrary("ksintf");
            }
        }
        loaded = true;
    }

    private static File onLibraryPath() {
        String path = System.getProperty("java.library.path", "");
        for (String dir : path.split(File.pathSeparator)) {
            File candidate = new File(dir, "libksintf.so.3");
            if (!dir.isEmpty() && candidate.isFile()) {
                return candidate;
            }
        }
        return null;
    }

    private static File besideJar() {
        try {
            CodeSource source = NativeLibrary.class.getProtectionDomain().getCodeSource();
            if (source == null) {
                return null;
            }
            File jar = new File(source.getLocation().toURI());
            if (!jar.isFile()) {
                return null;
            }
            try (JarFile file = new JarFile(jar)) {
                Manifest manifest = file.getManifest();
                String relative = manifest == null ? null
                        : manifest.getMainAttributes().getValue("Ksintf-Native-Library");
                if (relative == null) {
                    return null;
                }
                File candidate = new File(jar.getParentFile(), relative);
                return candidate.isFile() ? candidate : null;
            }
        } catch (IOException | URISyntaxException | SecurityException | IllegalArgumentException e) {
            return null;
        }
    }
}
