package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Comparator;
import java.util.stream.Stream;

/** A directory for a temporary registry. */
record TemporaryDirectory(Path path) {
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");

    static TemporaryDirectory create() throws IOException {
        return new TemporaryDirectory(Files.createTempDirectory("tkv-registry-"));
    }

    /** Removes the directory with everything in it, or logs why that is not possible. */
    void remove() {
        try (Stream<Path> files = Files.walk(path)) {
            for (Path file : files.sorted(Comparator.reverseOrder()).toList()) {
                Files.deleteIfExists(file);
            }
        } catch (IOException e) {
            LOGGER.log(System.Logger.Level.WARNING, () -> path + " was not removed: " + e);
        }
    }
}
