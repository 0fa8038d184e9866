package velmar.qen.mgmt.registry;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;

/**
 * What is known of the keys of one state, by their full names: a hash table with open addressing. Names and contents
 * lie side by side in one array, so that a lookup does not have to wait for one object to find the next.
 *
 * <p>Any thread may look up keys at any time, without a lock. One thread at a time may add keys. A key is left out if
 * there are too many with its hash code, so that whoever chooses such names on purpose does not slow down those who
 * read them.
 */
final class KeyTable {
    private static final VarHandle ELEMENT = MethodHandles.arrayElementVarHandle(Object[].class);
    private static final int FEWEST_PLACES = 1 << 6;
    private static final int GROWTH = 4;
    /** The golden ratio: spreads the hash codes of names that differ in their last characters only. */
    private static final int MIXER = 0x9E3779B1;
    /** Many more than it takes to find a key whose hash code is not that of others. */
    private static final int MOST_STEPS = 1 << 8;
    private static final int NO_PLACE = Integer.MIN_VALUE;

    /** The number of the state. */
    final long state;

    /** The name and the content of each place. A name is written after its content, and never changed. */
    private volatile Object[] elements = new Object[2 * FEWEST_PLACES];
    /** Of each place. Like what follows, used by the thread that adds keys only. */
    private int[] weights = new int[FEWEST_PLACES];
    private int count;
    private long weight;

    KeyTable(long state) {
        this.state = state;
    }

    /** Returns the content of a key, or null if it is not in the table. */
    Object find(String name) {
        Object[] all = elements;
        int place = placeOf(name, all);
        return place < 0 ? null : ELEMENT.getAcquire(all, 2 * place + 1);
    }

    /** Returns the place of a key or, if it is not in the table, the complement of a free place, or NO_PLACE. */
    private static int placeOf(String name, Object[] all) {
        int places = all.length / 2;
        int place = name.hashCode() * MIXER >>> Integer.numberOfLeadingZeros(places - 1);
        for (int step = 0; step < MOST_STEPS; step++, place = place + 1 & places - 1) {
            Object there = ELEMENT.getAcquire(all, 2 * place);
            if (there == name) {
                return place;
            }
            if (there == null) {
                return ~place;
            }
            if (isEqual(name, (String) there)) {
                return place;
            }
        }
        return NO_PLACE;
    }

    /** Compares the hash codes first: strings keep them. */
    private static boolean isEqual(String name, String other) {
        return name.hashCode() == other.hashCode() && name.equals(other);
    }

    /** Sets the content of a key, and adds to the key's weight. If there is no place for the key, nothing happens. */
    void put(String name, Object content, int more) {
        if (count >= weights.length / 2) {
            grow();
        }
        Object[] all = elements;
        int found = placeOf(name, all);
        if (found == NO_PLACE) {
            return;
        }
        int place = found < 0 ? ~found : found;
        ELEMENT.setRelease(all, 2 * place + 1, content);
        if (found < 0) {
            ELEMENT.setRelease(all, 2 * place, name);
            count++;
        }
        weights[place] += more;
        weight += more;
    }

    private void grow() {
        Object[] from = elements;
        Object[] to = new Object[GROWTH * from.length];
        int[] itsWeights = new int[GROWTH * weights.length];
        for (int former = 0; former < weights.length; former++) {
            if (from[2 * former] == null) {
                continue;
            }
            int place = ~placeOf((String) from[2 * former], to);
            if (place == ~NO_PLACE) {
                count--;
                weight -= weights[former];
                continue;
            }
            to[2 * place] = from[2 * former];
            to[2 * place + 1] = from[2 * former + 1];
            itsWeights[place] = weights[former];
        }
        weights = itsWeights;
        elements = to;
    }

    /** Returns the weight of a key in the table. Called by the thread that adds keys. */
    int weightOf(String name) {
        return weights[placeOf(name, elements)];
    }

    /** Returns how many keys there are. Called by the thread that adds keys. */
    int count() {
        return count;
    }

    /** Returns the weight of all keys. Called by the thread that adds keys. */
    long weight() {
        return weight;
    }
}
