package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.nio.file.Path;
import velmar.qen.mgmt.nativesystem.Configuration;

/** Storage whose troubles a test can bring about behind the registry's back, on whatever the run's location is. */
interface TroubledStorage extends AutoCloseable {
    /** The storage of this run; a directory is the test's own, and small. */
    static TroubledStorage in(Path directory) {
        return Configuration.onCluster() ? new TroubledCluster() : new TroubledDirectory(directory);
    }

    /** Changes one byte of a stored text. */
    void damage(String text) throws IOException;

    /** From now on there is no room for half a mebibyte more than once. */
    void runShort() throws IOException;

    /** From now on there is room for something small at least. */
    void makeRoom() throws IOException;

    /** Ends the troubles. */
    @Override
    void close() throws IOException;
}
