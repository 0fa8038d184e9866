package velmar.qen.mgmt.bench;

import java.util.List;

/**
 * One system under measurement, on a store in a directory of its own. What it gives back must be what its own users get,
 * in the form that is cheapest for it. Objects are for one thread.
 */
interface Peer {
    /** What was measured: product, version, and the settings that decide about durability. */
    String description();

    /** Opens the store for reading and writing, and makes it when it does not exist. */
    void open() throws Exception;

    /** Writes the whole dataset into a fresh store; need not be durable before {@link #close}. */
    void fill(Dataset dataset) throws Exception;

    /** The value of a key that exists. */
    String read(String name) throws Exception;

    /** The names of a key's subkeys, one level each. */
    List<String> list(String name) throws Exception;

    /** Overwrites the value of a key that exists; returns when that is as durable as {@link #description} says. */
    void write(String name, String value) throws Exception;

    /** Opens a key and closes it again, for systems that have open keys. */
    default void openAndCloseKey(String name) throws Exception {
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
