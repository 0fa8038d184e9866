package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** The configuration of this test run, in force at the next opening; restored at the end. */
final class Configuration implements AutoCloseable {
    private static final Path FILE = Path.of(System.getenv("TKV_CONF"));

    private final String former;

    Configuration(String text) {
        former = current();
        write(text);
    }

    static Configuration ofDirectory(Path directory, String... settings) {
        return new Configuration("[registry]\nlocation = " + directory + "\nlocal_only = yes\n"
                + String.join("\n", settings) + "\n");
    }

    static String current() {
        try {
            return Files.readString(FILE);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    static boolean onCluster() {
        return current().contains("etcd://");
    }

    static Path file() {
        return FILE;
    }

    private static void write(String text) {
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
