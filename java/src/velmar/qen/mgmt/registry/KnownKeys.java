package velmar.qen.mgmt.registry;

import java.util.List;
import java.util.concurrent.atomic.AtomicBoolean;

/**
 * What an open registry knows of the keys that it has read: their values, and the names of their subkeys.
 *
 * <p>All of it was read from one state, and counts only as long as that is the latest one: any change of the registry,
 * by whichever process, outdates everything at once. Rights are part of the state, so what a session could read in it,
 * it may still read. What is read from a new state takes the place of all that was known.
 *
 * <p>The first keys that are read of a state are taken in, and others once it turns out that keys are read again in
 * that state: a program that reads all of its many keys anew after each change has no use for a large table, and would
 * wait for its memory.
 *
 * <p>The keys are in two generations. A key that is read moves to the younger one. When that has reached half of the
 * largest weight, it becomes the older one, and the former older one is dropped. Once there is an older generation, a
 * key is taken in when it is read for the second time, so that reading many keys once displaces nothing.
 *
 * <p>Any thread may call any method. Reading what is known takes no lock and writes nothing that threads share. A thread
 * does not wait while another one adds a key: its own key is then added when it is read again.
 */
final class KnownKeys {
    /** The value of a key that does not exist. No key has this very object. */
    static final Value ABSENT = new Value.None();

    /** In bytes, about; an eighth of a small heap. */
    private static final long LARGEST_WEIGHT = Math.min(64L << 20, Runtime.getRuntime().maxMemory() / 8);
    /** What a key takes besides the characters of its name and its content. */
    private static final int KEY_WEIGHT = 200;
    private static final int ELEMENT_WEIGHT = 56;
    /** A key that takes more than this part of the largest weight is not taken in. */
    private static final int LARGEST_SHARE = 8;
    private static final int MOST_SEEN = 1 << 17;
    /** As many keys as a table can hold within the processor's caches, beside all else. */
    private static final int FEW = 1 << 10;
    /** In place of a generation that there is not. */
    private static final KeyTable NONE = new KeyTable(0);

    /**
     * The content of a key whose subkeys are known; the value is null if it is not known. The content of any other key
     * is its value alone, so that there is one object less to fetch.
     */
    private record Parent(Value value, List<String> subkeys) {}

    private final LatestState latest;
    private final long largestWeight;
    /** Set by the thread that adds a key, for which no other waits. */
    private final AtomicBoolean adding = new AtomicBoolean();
    /** Guarded by adding. */
    private final SeenNames seen = new SeenNames(MOST_SEEN);
    /** Of the state of the younger generation. Changed by the thread that adds keys. */
    private final RepeatedReads repeated = new RepeatedReads();
    /** Whether more keys are known of that state than are taken in at once. Written by the thread that adds keys. */
    private volatile boolean knowsMany;
    private volatile KeyTable younger = NONE;
    private volatile KeyTable older = NONE;

    KnownKeys(LatestState latest) {
        this(latest, LARGEST_WEIGHT);
    }

    KnownKeys(LatestState latest, long largestWeight) {
        this.latest = latest;
        this.largestWeight = largestWeight;
    }

    /** Returns the value of a key, {@link #ABSENT} if there is no such key; null if that is not known. */
    Value value(String name) {
        return valueIn(find(name));
    }

    private static Value valueIn(Object content) {
        return content instanceof Parent parent ? parent.value : (Value) content;
    }

    /** Returns whether there is a key; null if that is not known. */
    Boolean exists(String name) {
        Value value = value(name);
        return value == null ? null : value != ABSENT;
    }

    /** Returns the names of a key's subkeys; null if they are not known. */
    List<String> subkeys(String name) {
        return subkeysIn(find(name));
    }

    private static List<String> subkeysIn(Object content) {
        return content instanceof Parent parent ? parent.subkeys : null;
    }

    /**
     * The state is read first, once: what is known of it was so when this method was called, or later. After a change,
     * nothing is looked up.
     */
    private Object find(String name) {
        long state = latest.number();
        KeyTable generation = younger;
        if (generation.state != state) {
            return null;
        }
        Object content = generation.find(name);
        if (content != null) {
            return content;
        }
        generation = older;
        content = generation.state == state ? generation.find(name) : null;
        if (content != null) {
            rejuvenate(name, generation);
        }
        return content;
    }

    private boolean beginAdding() {
        return adding.compareAndSet(false, true);
    }

    private void rejuvenate(String name, KeyTable generation) {
        if (beginAdding()) {
            try {
                if (generation == older && younger.find(name) == null) {
                    add(name, generation.find(name), generation.weightOf(name));
                }
            } finally {
                adding.setRelease(false);
            }
        }
    }

    /** Notes what was read in a state; 0 if that is not certain. The size is that of what was read, in bytes. */
    void note(String name, long state, Value value, int size) {
        note(name, state, value, null, size + elementsWeight(value));
    }

    /** Notes what was read in a state; 0 if that is not certain. The size is that of what was read, in bytes. */
    void note(String name, long state, List<String> subkeys, int size) {
        note(name, state, null, subkeys, size + elementsWeight(subkeys));
    }

    private static long elementsWeight(Value value) {
        return value instanceof Value.TextList list ? elementsWeight(list.texts()) : 0;
    }

    private static long elementsWeight(List<String> texts) {
        return (long) ELEMENT_WEIGHT * texts.size();
    }

    private void note(String name, long state, Value value, List<String> subkeys, long more) {
        long all = KEY_WEIGHT + name.length() + more;
        boolean isTooLarge = all > largestWeight / LARGEST_SHARE;
        if (state == 0 || isTooLarge || isPassedOver(name, state) || !beginAdding()) {
            return;
        }
        try {
            if (!beginState(state)) {
                return;
            }
            Object former = younger.find(name);
            if (former != null || isWanted(name)) {
                Object content = joined(former, value, subkeys);
                if (!content.equals(former)) {
                    add(name, content, (int) (former == null ? all : more));
                }
            }
        } finally {
            adding.setRelease(false);
        }
    }

    /** Returns true for most of the keys that are not wanted, without the lock. */
    private boolean isPassedOver(String name, long state) {
        KeyTable generation = younger;
        boolean isOneOfMany = knowsMany && generation.state == state && older == NONE && !repeated.areMany();
        return isOneOfMany && !repeated.concerns(name) && generation.find(name) == null;
    }

    private static Object joined(Object former, Value value, List<String> subkeys) {
        Value itsValue = value != null ? value : valueIn(former);
        List<String> itsSubkeys = subkeys != null ? subkeys : subkeysIn(former);
        return itsSubkeys == null ? itsValue : new Parent(itsValue, itsSubkeys);
    }

    /** Makes the tables those of a state. Returns false if that is no longer the latest one. */
    private boolean beginState(long state) {
        if (younger.state == state) {
            return true;
        }
        if (state != latest.number()) {
            return false;
        }
        older = NONE;
        knowsMany = false;
        repeated.forget();
        younger = new KeyTable(state);
        return true;
    }

    /** Returns whether to take in a key that is not in the younger generation. */
    private boolean isWanted(String name) {
        if (older != NONE) {
            return older.find(name) != null || seen.wasSeen(name);
        }
        if (knowsMany && !repeated.areMany() && repeated.concerns(name)) {
            repeated.add(name);
        }
        return !knowsMany || repeated.areMany();
    }

    private void add(String name, Object content, int weight) {
        younger.put(name, content, weight);
        if (!knowsMany && younger.count() >= FEW) {
            knowsMany = true;
        }
        if (younger.weight() > largestWeight / 2) {
            older = younger;
            younger = new KeyTable(older.state);
        }
    }

    /** Returns the weight of all keys, about. */
    long weight() {
        return younger.weight() + older.weight();
    }
}
