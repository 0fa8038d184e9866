package velmar.qen.mgmt.bench;

import java.io.IOException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;

/**
 * LMDB behind the thinnest possible native methods, with full names as keys: no tree, no rights, no checksums. It is the
 * lower bound for any registry on LMDB that is called from Java.
 */
final class BareLmdbPeer implements Peer {
    static {
        System.load(System.getProperty("bench.library"));
    }

    private final Path directory;
    private final int reader;

    BareLmdbPeer(Path directory) {
        this(directory, 0);
    }

    private BareLmdbPeer(Path directory, int reader) {
        this.directory = directory;
        this.reader = reader;
    }

    private static native void openStore(String directory) throws IOException;

    /** Returns the number of a reader for another thread. */
    private static native int addReader() throws IOException;

    private static native void closeStore();

    private static native String version();

    private static native String get(int reader, String name) throws IOException;

    private static native String[] subkeys(String name) throws IOException;

    private static native void put(String name, String value) throws IOException;

    @Override
    public String description() {
        return version() + " through bare native methods, full names as keys: a durable commit each write";
    }

    @Override
    public void open() throws IOException {
        openStore(directory.toString());
    }

    @Override
    public String read(String name) throws IOException {
        return get(reader, name);
    }

    @Override
    public List<String> list(String name) throws IOException {
        return Arrays.asList(subkeys(name));
    }

    @Override
    public void write(String name, String value) throws IOException {
        put(name, value);
    }

    @Override
    public Peer another() throws IOException {
        return new BareLmdbPeer(directory, addReader());
    }

    @Override
    public void close() {
        closeStore();
    }
}
