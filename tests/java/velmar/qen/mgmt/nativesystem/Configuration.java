package velmar.qen.mgmt.nativesystem;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/** The configuration of this test run. A test may replace it for a while; closing this object restores it. */
public final class Configuration implements AutoCloseable {
    private static final Path FILE = Path.of(System.getenv("TKV_CONF"));

    private final String former = current();

    /** Keeps the present configuration, to be restored. */
    public Configuration() {}

    /** Replaces the present configuration. */
    public Configuration(String text) {
        write(text);
    }

    /** Configures an embedded registry for this test alone. */
    public static Configuration ofDirectory(Path directory, String... settings) {
        return new Configuration("[registry]\nlocation = " + directory + "\nlocal_only = yes\n"
                + String.join("\n", settings) + "\n");
    }

    /** Adds settings to the present configuration, in the registry's section or a new one. */
    public static Configuration with(String settings) {
        return new Configuration(current() + settings);
    }

    public static String current() {
        try {
            return Files.readString(FILE);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** Returns the value of a setting in the present configuration. */
    public static String setting(String name) {
        String start = name + " = ";
        return current().lines().filter(line -> line.startsWith(start)).findFirst().orElseThrow()
                .substring(start.length());
    }

    /** Returns the locations of the registry: one directory or several addresses. */
    public static List<String> locations() {
        return List.of(setting("location").split(" "));
    }

    public static boolean onCluster() {
        return locations().get(0).startsWith("etcd://");
    }

    public static Path file() {
        return FILE;
    }

    public void write(String text) {
        try {
            Files.writeString(FILE, text);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    @Override
    public void close() {
        write(former);
    }
}
