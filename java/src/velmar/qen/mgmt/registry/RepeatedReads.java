package velmar.qen.mgmt.registry;

/**
 * Finds out whether the keys of a state are read again in that state. Once it has been told of a few thousand names, it
 * goes by a sample of names: to remember each of them would take as long as what might be saved.
 *
 * <p>Any thread may ask. One thread at a time may change it.
 */
final class RepeatedReads {
    private static final int SAMPLE_BITS = 4;
    private static final int MOST = 1 << 13;
    private static final int MANY = 16;
    /** The golden ratio: spreads the hash codes of names that differ in their last characters only. */
    private static final int MIXER = 0x9E3779B1;

    private final SeenNames seen = new SeenNames(MOST);
    private int told;
    private volatile boolean goesBySample;
    /** How many names were read again. */
    private volatile int repeated;

    /** Returns whether to tell that a name was read. */
    boolean concerns(String name) {
        return !goesBySample || name.hashCode() * MIXER >>> Integer.SIZE - SAMPLE_BITS == 0;
    }

    /** Tells that a name was read. */
    void add(String name) {
        if (seen.wasSeen(name)) {
            repeated = repeated + 1;
        }
        if (++told == MOST) {
            goesBySample = true;
        }
    }

    /** Returns whether enough names were read again to expect it of others. */
    boolean areMany() {
        return repeated >= MANY;
    }

    /** Begins with another state. */
    void forget() {
        if (told != 0) {
            seen.forget();
            told = 0;
            goesBySample = false;
            repeated = 0;
        }
    }
}
