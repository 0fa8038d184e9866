package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.nio.file.Path;
import velmar.qen.mgmt.nativesystem.Configuration;

/** The storage of a registry, in which a test can cause problems, for either kind of location. */
interface TroubledStorage extends AutoCloseable {
    /** Returns the storage of this run; a directory is small, and used by this test alone. */
    static TroubledStorage in(Path directory) {
        return Configuration.onCluster() ? new TroubledCluster() : new TroubledDirectory(directory);
    }

    /** Changes one byte of a stored text. */
    void damage(String text) throws IOException;

    /** Leaves room for half a mebibyte at most once. */
    void runShort() throws IOException;

    /** Makes sure that there is room for a small value. */
    void makeRoom() throws IOException;

    /** Ends the problems. */
    @Override
    void close() throws IOException;
}
