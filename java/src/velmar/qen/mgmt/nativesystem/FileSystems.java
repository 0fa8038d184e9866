package velmar.qen.mgmt.nativesystem;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/** The mounted file systems, as Linux lists them. */
final class FileSystems {
    private static final Path MOUNTS = Path.of("/proc/self/mountinfo");

    private FileSystems() {}

    /** Returns whether the file system of a directory is mounted with {@code noexec}; false if that is not known. */
    static boolean forbidsExecution(Path directory) throws IOException {
        Path real = directory.toRealPath();
        String options = "";
        int longest = -1;
        for (String line : mounts()) {
            // Number, parent, device, root, mount point, options, ...; of several mounts, the last is the visible one.
            String[] fields = line.split(" ");
            Path point = Path.of(unescaped(fields[4]));
            if (real.startsWith(point) && point.getNameCount() >= longest) {
                longest = point.getNameCount();
                options = fields[5];
            }
        }
        return List.of(options.split(",")).contains("noexec");
    }

    private static List<String> mounts() {
        try {
            return Files.readAllLines(MOUNTS);
        } catch (IOException e) {
            return List.of();
        }
    }

    /** Blanks and the like are written as octal numbers. */
    private static String unescaped(String field) {
        return field.replace("\\040", " ").replace("\\011", "\t").replace("\\012", "\n").replace("\\134", "\\");
    }
}
