package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** Opens registries whose configuration says how much of the past they retain. */
final class HistoryOf {
    private HistoryOf() {}

    /** Opens the registry in a directory, with settings for its history. */
    static Registry with(String settings, Path directory) throws IOException {
        Path file = directory.resolve("tkv.conf");
        String location = "[registry]\nlocation = " + directory.resolve("registry") + "\n";
        Files.writeString(file, location + "[history]\n" + settings + "\n");
        return Registry.open(file);
    }
}
