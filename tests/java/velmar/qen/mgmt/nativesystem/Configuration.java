package velmar.qen.mgmt.nativesystem;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/** The configuration of this test run, which a test may change for what it opens and asks; restored at the end. */
public final class Configuration implements AutoCloseable {
    private static final Path FILE = Path.of(System.getenv("TKV_CONF"));

    private final String former = current();

    /** Changes nothing yet. */
    public Configuration() {}

    /** Puts a configuration in the place of the present one. */
    public Configuration(String text) {
        write(text);
    }

    /** Names an embedded registry of the test's own. */
    public static Configuration ofDirectory(Path directory, String... settings) {
        return new Configuration("[registry]\nlocation = " + directory + "\nlocal_only = yes\n"
                + String.join("\n", settings) + "\n");
    }

    /** Adds settings to the present configuration, in the section of the registry or a new one. */
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

    /** The value of a setting in the present configuration. */
    public static String setting(String name) {
        String start = name + " = ";
        return current().lines().filter(line -> line.startsWith(start)).findFirst().orElseThrow()
                .substring(start.length());
    }

    /** The places of the registry, one directory or some addresses. */
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
