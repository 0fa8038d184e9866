package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.stream.Stream;
import velmar.qen.mgmt.nativesystem.Configuration;

/** A registry in a directory, limited to a mebibyte. */
final class TroubledDirectory implements TroubledStorage {
    private final Path directory;
    private final Configuration configuration;

    TroubledDirectory(Path directory) {
        this.directory = directory;
        configuration = Configuration.ofDirectory(directory, "map_size = 1048576");
    }

    /** Changes the text in every file and at every place where it occurs. */
    @Override
    public void damage(String text) throws IOException {
        int places = 0;
        for (Path file : files()) {
            // A character for each byte, so that positions in the text are positions in the file.
            String content = Files.readString(file, StandardCharsets.ISO_8859_1);
            for (int at = content.indexOf(text); at >= 0; at = content.indexOf(text, at + 1), places++) {
                try (RandomAccessFile bytes = new RandomAccessFile(file.toFile(), "rw")) {
                    bytes.seek(at);
                    bytes.write('A');
                }
            }
        }
        assertTrue(places > 0, "the text is in a file");
    }

    private List<Path> files() throws IOException {
        try (Stream<Path> files = Files.list(directory)) {
            return files.filter(Files::isRegularFile).toList();
        }
    }

    /** Does nothing: the space is limited from the start. */
    @Override
    public void runShort() {}

    /** Does nothing: space that is too small for a large value is left for a small one. */
    @Override
    public void makeRoom() {}

    @Override
    public void close() {
        configuration.close();
    }
}
