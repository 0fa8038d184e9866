package velmar.qen.mgmt.registry;

import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.atomic.AtomicLong;

/**
 * What an open registry knows of the keys that it has read: their values, and the names of their subkeys.
 *
 * <p>Each entry is labelled with the number of the state that it was read from, and counts only as long as that is the
 * latest one: any change of the registry, by whichever process, outdates all entries at once. Rights are part of the
 * state, so what a session could read in it, it may still read.
 *
 * <p>The entries are in two generations. A key that is read moves to the younger one. When that has reached half of the
 * largest weight, it becomes the older one, and the former older one is dropped. Until there is an older generation, each
 * key that is read is taken in. From then on, a key is taken in when it is read for the second time, so that reading many
 * keys once displaces nothing.
 *
 * <p>Any thread may call any method. Reading what is known takes no lock and writes nothing that threads share.
 */
final class KnownKeys {
    /** In bytes, about; an eighth of a small heap. */
    private static final long LARGEST_WEIGHT = Math.min(64L << 20, Runtime.getRuntime().maxMemory() / 8);
    /** What an entry takes besides the characters of its key and its content. */
    private static final int ENTRY_WEIGHT = 200;
    private static final int ELEMENT_WEIGHT = 56;
    /** An entry that takes more than this part of the largest weight is not taken in. */
    private static final int LARGEST_SHARE = 8;

    /**
     * What was read of a key in a state. A part that was not read weighs nothing, and is null; so is the value of a key
     * that does not exist. The value is not an {@link Optional}, which would be one more object to fetch on each read.
     */
    private record Known(long state, Value value, long valueWeight, List<String> subkeys, long subkeysWeight) {
        boolean hasValue() {
            return valueWeight != 0;
        }

        long weight() {
            return valueWeight + subkeysWeight;
        }
    }

    private static final Known NOTHING = new Known(0, null, 0, null, 0);
    /** In place of an older generation. */
    private static final Map<String, Known> NONE = Map.of();

    private final LatestState latest;
    private final long largestWeight;
    private final SeenNames seen = new SeenNames();
    private final AtomicLong weight = new AtomicLong();  // of the younger generation
    private volatile Map<String, Known> younger = new ConcurrentHashMap<>();
    private volatile Map<String, Known> older = NONE;

    KnownKeys(LatestState latest) {
        this(latest, LARGEST_WEIGHT);
    }

    KnownKeys(LatestState latest, long largestWeight) {
        this.latest = latest;
        this.largestWeight = largestWeight;
    }

    /** Returns the value of a key, which is empty if there is no such key; null if that is not known. */
    Optional<Value> value(String name) {
        Known known = find(name);
        return known == null || !known.hasValue() ? null : Optional.ofNullable(known.value);
    }

    /** Returns whether there is a key; null if that is not known. */
    Boolean exists(String name) {
        Optional<Value> value = value(name);
        return value == null ? null : value.isPresent();
    }

    /** Returns the names of a key's subkeys; null if they are not known. */
    List<String> subkeys(String name) {
        Known known = find(name);
        return known == null ? null : known.subkeys;
    }

    /** The state is read after the entry: what is returned was so when this method was called, or later. */
    private Known find(String name) {
        Known known = younger.get(name);
        if (known != null) {
            return known.state == latest.number() ? known : null;
        }
        known = older.get(name);
        if (known == null || known.state != latest.number()) {
            return null;
        }
        if (younger.putIfAbsent(name, known) == null) {
            grow(weightOf(name, known));
        }
        return known;
    }

    /** Notes what was read in a state; 0 if that is not certain. The size is that of what was read, in bytes. */
    void note(String name, long state, Optional<Value> value, int size) {
        if (isWanted(name, state)) {
            Known known = knownIn(state, name);
            long valueWeight = size + elementsWeight(value.orElse(null));
            put(name, new Known(state, value.orElse(null), valueWeight, known.subkeys, known.subkeysWeight));
        }
    }

    /** Notes what was read in a state; 0 if that is not certain. The size is that of what was read, in bytes. */
    void note(String name, long state, List<String> subkeys, int size) {
        if (isWanted(name, state)) {
            Known known = knownIn(state, name);
            put(name, new Known(state, known.value, known.valueWeight, subkeys, size + elementsWeight(subkeys)));
        }
    }

    private static long elementsWeight(Value value) {
        return value instanceof Value.TextList list ? elementsWeight(list.texts()) : 0;
    }

    private static long elementsWeight(List<String> texts) {
        return (long) ELEMENT_WEIGHT * texts.size();
    }

    private boolean isWanted(String name, long state) {
        return state != 0
                && (older == NONE || younger.containsKey(name) || older.containsKey(name) || seen.wasSeen(name));
    }

    private Known knownIn(long state, String name) {
        Known known = younger.get(name);
        return known != null && known.state == state ? known : NOTHING;
    }

    private void put(String name, Known known) {
        long itsWeight = weightOf(name, known);
        if (itsWeight <= largestWeight / LARGEST_SHARE) {
            Known former = younger.put(name, known);
            grow(itsWeight - (former == null ? 0 : weightOf(name, former)));
        }
    }

    private static long weightOf(String name, Known known) {
        return ENTRY_WEIGHT + name.length() + known.weight();
    }

    private void grow(long more) {
        if (weight.addAndGet(more) > largestWeight / 2) {
            beginGeneration();
        }
    }

    private synchronized void beginGeneration() {
        if (weight.get() > largestWeight / 2) {
            older = younger;
            younger = new ConcurrentHashMap<>();
            weight.set(0);
        }
    }

    /** Returns the weight of all entries, about. */
    long weight() {
        long ofOlder = older.entrySet().stream().mapToLong(each -> weightOf(each.getKey(), each.getValue())).sum();
        return weight.get() + ofOlder;
    }
}
