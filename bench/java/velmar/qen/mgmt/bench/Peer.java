package velmar.qen.mgmt.bench;

import java.util.List;

/**
 * One system under measurement, on a store in a directory of its own. It returns what its users would get, in the form
 * that is cheapest for it. Instances are not thread-safe.
 */
interface Peer {
    /** What was measured: product, version, and the settings that affect durability. */
    String description();

    /** Opens the store for reading and writing, and creates it if it does not exist. */
    void open() throws Exception;

    /**
     * Writes the whole dataset into a fresh store. It need not be durable before {@link #close}. The stores of TKV and of
     * bare LMDB are filled by the native benchmark, many keys at a time.
     */
    default void fill(Dataset dataset) throws Exception {
        throw new UnsupportedOperationException();
    }

    /** The value of a key that exists. */
    String read(String name) throws Exception;

    /** The names of a key's subkeys, one level each. */
    List<String> list(String name) throws Exception;

    /** Overwrites the value of a key that exists; returns when that is as durable as {@link #description} says. */
    void write(String name, String value) throws Exception;

    /** Opens a key and closes it again, in systems that have open keys. */
    default void openAndCloseKey(String name) throws Exception {
        throw new UnsupportedOperationException();
    }

    /** Returns a peer on the same open store for another thread. This one closes it. */
    default Peer another() throws Exception {
        throw new UnsupportedOperationException();
    }

    /** Closes the store; {@link #open} may follow. */
    void close() throws Exception;

    default boolean supports(Scenario scenario) {
        return scenario != Scenario.OPEN_KEY;
    }

    /** Whether this is the negative control, whose answers are empty. */
    default boolean isControl() {
        return false;
    }
}
