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

    BareLmdbPeer(Path directory) {
        this.directory = directory;
    }

    private static native void openStore(String directory) throws IOException;

    private static native void closeStore();

    private static native String version();

    private static native String get(String name) throws IOException;

    private static native String[] subkeys(String name) throws IOException;

    private static native void put(String name, String value) throws IOException;

    private static native void begin() throws IOException;

    private static native void commit() throws IOException;

    @Override
    public String description() {
        return version() + " through bare native methods, full names as keys: a durable commit each write";
    }

    @Override
    public void open() throws IOException {
        openStore(directory.toString());
    }

    @Override
    public void fill(Dataset dataset) throws IOException {
        begin();
        for (String name : dataset.fullNames(dataset.groups())) {
            put(name, Dataset.value(name));
        }
        commit();
    }

    @Override
    public String read(String name) throws IOException {
        return get(name);
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
    public void close() {
        closeStore();
    }
}
