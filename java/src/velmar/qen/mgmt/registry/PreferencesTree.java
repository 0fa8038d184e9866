package velmar.qen.mgmt.registry;

import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.NavigableMap;
import java.util.Optional;
import java.util.TreeMap;
import java.util.concurrent.ConcurrentSkipListMap;
import java.util.function.BiConsumer;
import java.util.function.Consumer;
import java.util.function.Function;
import java.util.function.Supplier;
import java.util.prefs.BackingStoreException;
import java.util.stream.Stream;

/**
 * A tree of preferences in a registry, and the changes of this process that could not be written to it.
 *
 * <p>Nodes and preferences are identified by relative names: the levels of {@link PreferenceNames} from the root of the
 * tree, whose own name is {@code ""}. The registry is opened when it is first needed, and tried again at each call if
 * that has failed. Any thread may call any method; a caller may hold locks of nodes, and none is taken here.
 */
final class PreferencesTree {
    // As base/limits.h defines them for all names.
    private static final int MAX_LEVELS = 64;
    private static final int MAX_BYTES = 1023;

    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");

    private final Supplier<Registry> opener;
    private final Function<Registry, String> place;
    private final boolean isPrivate;

    // Set by opened(). The full name is set first.
    private volatile String top;
    private volatile Registry registry;
    /** Whether the root of the tree exists and may be used. */
    private volatile boolean verified;

    /** Changes that are not written yet: an empty optional removes a preference, no value creates a node. */
    private final NavigableMap<String, Optional<Value>> pending = new ConcurrentSkipListMap<>();
    /** Held while changes are written, so that they are written in the order in which they are made. */
    private final Object writing = new Object();
    /** Whether the last change has failed, and a warning was given. Guarded by writing. */
    private boolean failing;
    /** What this thread changes, while it is collecting. */
    private final ThreadLocal<NavigableMap<String, Optional<Value>>> collected = new ThreadLocal<>();

    private PreferencesTree(Supplier<Registry> opener, Function<Registry, String> place, boolean isPrivate) {
        this.opener = opener;
        this.place = place;
        this.isPrivate = isPrivate;
    }

    /** Returns the tree of the session's user, which is private. */
    static PreferencesTree ofUser(Supplier<Registry> opener) {
        return new PreferencesTree(opener, session -> "preferences.users." + PreferenceNames.ofNode(session.user()),
                                   true);
    }

    /** Returns the tree that all users share, with the rights that it has in the registry. */
    static PreferencesTree ofSystem(Supplier<Registry> opener) {
        return new PreferencesTree(opener, session -> "preferences.system", false);
    }

    // --- Names ---

    /**
     * Returns the name of a level below a node.
     *
     * @throws IllegalArgumentException if the registry's names cannot be that deep or that long
     */
    String join(String node, String level) {
        String name = relativeName(node, level);
        String full = fullName(name);
        if (!fits(full)) {
            throw new IllegalArgumentException("too deep or too long for the registry, with " + levels(full)
                    + " levels of " + MAX_LEVELS + " and " + bytes(full) + " bytes of " + MAX_BYTES + ": " + full);
        }
        return name;
    }

    /** Returns whether the registry's names can be so deep and so long that there can be this level below a node. */
    boolean fits(String node, String level) {
        return fits(fullName(relativeName(node, level)));
    }

    private static String relativeName(String node, String level) {
        return node.isEmpty() ? level : node + "." + level;
    }

    private static boolean fits(String full) {
        return levels(full) <= MAX_LEVELS && bytes(full) <= MAX_BYTES;
    }

    private static long levels(String full) {
        return full.chars().filter(c -> c == '.').count() + 1;
    }

    private static int bytes(String full) {
        return ModifiedUtf8.encode(full).length;
    }

    /** Returns the full name in the registry; the relative one as long as no registry could be opened. */
    private String fullName(String name) {
        try {
            opened();
        } catch (RegistryException e) {
            return name;
        }
        return name.isEmpty() ? top : top + "." + name;
    }

    private static boolean isWithin(String name, String node) {
        return node.isEmpty() || name.equals(node) || name.startsWith(node + ".");
    }

    // --- Reading ---

    boolean exists(String name) throws BackingStoreException {
        return pending.containsKey(name) || checked(() -> readable().exists(fullName(name)));
    }

    /** Returns the text of a preference; empty if there is none. */
    Optional<String> find(String name) {
        Optional<Value> change = pending.get(name);
        Optional<Value> value = change != null ? change : readable().findValue(fullName(name));
        return value.map(Readings::text);
    }

    /** Returns the names of a node's children. */
    List<String> children(String node) throws BackingStoreException {
        List<String> levels = checked(() -> {
            try {
                return readable().list(fullName(node));
            } catch (KeyNotFoundException e) {
                return List.<String>of();
            }
        });
        return levels.stream().filter(level -> !PreferenceNames.isPreference(level))
                .flatMap(level -> PreferenceNames.decode(level).stream()).toList();
    }

    /** Returns the keys of a node's preferences, on one state of the registry. */
    List<String> keys(String node) throws BackingStoreException {
        List<String> keys = new ArrayList<>();
        visit(node, 1, (levels, text) -> {
            if (levels.size() == 1 && text != null) {
                keys.add(PreferenceNames.decode(levels.get(0)).orElseThrow());
            }
        });
        return keys;
    }

    /**
     * Visits nodes and preferences below a node, on one state of the registry, nodes before what is below them: their
     * levels, counted from the node, and the text of a preference, null for a node. Names that do not stand for either
     * are left out, and so are preferences that are not texts or may not be read.
     */
    void visit(String node, int depth, BiConsumer<List<String>, String> visitor) throws BackingStoreException {
        NavigableMap<String, Optional<Value>> found = checked(() -> entries(node, depth));
        pending.forEach((name, change) -> {
            if (!name.equals(node) && isWithin(name, node)) {
                found.put(name, change);
            }
        });
        found.forEach((name, value) -> {
            List<String> levels = List.of((node.isEmpty() ? name : name.substring(node.length() + 1)).split("\\."));
            boolean preference = PreferenceNames.isPreference(levels.get(levels.size() - 1));
            String text = preference ? value.map(Readings::text).orElse(null) : null;
            if (levels.size() <= depth && areNames(levels) && preference == (text != null)) {
                visitor.accept(levels, text);
            }
        });
    }

    /** Returns whether levels are those of a node, or of a preference in a node. */
    private static boolean areNames(List<String> levels) {
        return levels.stream().allMatch(level -> PreferenceNames.decode(level).isPresent())
                && levels.subList(0, levels.size() - 1).stream().noneMatch(PreferenceNames::isPreference);
    }

    private NavigableMap<String, Optional<Value>> entries(String node, int depth) {
        NavigableMap<String, Optional<Value>> found = new TreeMap<>();
        Registry from = readable();
        try (Stream<Entry> entries = from.walk(fullName(node), depth)) {
            entries.forEach(entry -> found.put(entry.name().substring(top.length() + 1), entry.findValue()));
        } catch (KeyNotFoundException e) {
            // Then there are none.
        }
        return found;
    }

    // --- Watching ---

    /** Has a listener told, in a thread of its own, of what is changed in the tree from now on, by whomever. */
    void watch(Consumer<RegistryEvent> listener) {
        opened().watch(top, Integer.MAX_VALUE, Runnable::run, listener);
    }

    /** Returns the levels of a full name from the root of the tree; none if it is not below that. */
    List<String> levelsOf(String name) {
        return name.startsWith(top + ".") ? List.of(name.substring(top.length() + 1).split("\\.")) : List.of();
    }

    /** Returns the text of a full name in a state or, if it is no longer retained, now; null if there is none. */
    String textAt(String name, long revision) {
        try (Snapshot state = opened().at(revision)) {
            return state.findValue(name).map(Readings::text).orElse(null);
        } catch (RegistryException e) {
            return find(name.substring(top.length() + 1)).orElse(null);
        }
    }

    // --- Changing ---

    /** Writes a preference. */
    void put(String name, String text) {
        change(name, Optional.of(new Value.Text(text)));
    }

    /** Removes a preference. */
    void remove(String name) {
        change(name, Optional.empty());
    }

    /** Creates a node. Returns whether it is new. */
    boolean create(String name) {
        try {
            if (exists(name)) {
                return false;
            }
        } catch (BackingStoreException e) {
            // The change will say so.
        }
        change(name, Optional.of(new Value.None()));
        return true;
    }

    private void change(String name, Optional<Value> change) {
        Map<String, Optional<Value>> collecting = collected.get();
        if (collecting != null) {
            collecting.put(name, change);
            return;
        }
        synchronized (writing) {
            pending.put(name, change);
            try {
                write(Map.of(name, change));
                pending.remove(name);
                failing = false;
            } catch (RegistryException e) {
                warn(change, e);
            }
        }
    }

    /** Warns of the first failure in a row, unless it is about a node: programs that only read create nodes as well. */
    private void warn(Optional<Value> change, RegistryException failure) {
        boolean worth = !failing && !change.equals(Optional.of(new Value.None()));
        failing |= worth;
        LOGGER.log(worth ? System.Logger.Level.WARNING : System.Logger.Level.DEBUG,
                   () -> "a change of preferences is kept in memory until it can be written: " + failure.getMessage());
    }

    /** Removes a node with everything below it, atomically. */
    void removeTree(String node) throws BackingStoreException {
        synchronized (writing) {
            checked(() -> readable().deleteTree(fullName(node)));
            pending.keySet().removeIf(name -> isWithin(name, node));
        }
    }

    /** Writes what is pending at a node and below it: first, all at once, what is there, then each removal. */
    void flush(String node) throws BackingStoreException {
        synchronized (writing) {
            NavigableMap<String, Optional<Value>> changes = new TreeMap<>(pending);
            changes.keySet().removeIf(name -> !isWithin(name, node));
            commit(changes);
        }
    }

    /** Writes changes that may be pending, and takes back nothing of them if that fails. */
    private void commit(NavigableMap<String, Optional<Value>> changes) throws BackingStoreException {
        if (!changes.isEmpty()) {
            checked(() -> {
                write(changes);
                return null;
            });
            pending.keySet().removeAll(changes.keySet());
        }
    }

    private void write(Map<String, Optional<Value>> changes) {
        Registry to = writable();
        Map<String, Value> values = new TreeMap<>();
        changes.forEach((name, change) -> change.ifPresent(value -> values.put(fullName(name), value)));
        if (!values.isEmpty()) {
            to.putTogether(values, security());
        }
        changes.forEach((name, change) -> {
            if (change.isEmpty()) {
                to.deleteTree(fullName(name));
            }
        });
    }

    // --- Collecting ---

    /** Begins to collect what this thread changes, instead of writing it. */
    void collect() {
        collected.set(new TreeMap<>());
    }

    /** Forgets what was collected, and ends collecting. */
    void discard() {
        collected.remove();
    }

    /** Writes what was collected, all or nothing, and ends collecting. */
    void commit() throws BackingStoreException {
        NavigableMap<String, Optional<Value>> changes = collected.get();
        collected.remove();
        synchronized (writing) {
            commit(changes);
        }
    }

    // --- The registry ---

    private Registry opened() {
        Registry open = registry;
        return open != null ? open : open();
    }

    private synchronized Registry open() {
        if (registry == null) {
            Registry opening = opener.get();
            top = place.apply(opening);
            registry = opening;
        }
        return registry;
    }

    private KeySecurity security() {
        return isPrivate ? KeySecurity.privateToUser() : KeySecurity.inherited();
    }

    private Registry readable() {
        Registry open = opened();
        if (!verified && open.exists(top)) {
            verify(open);
        }
        return open;
    }

    private Registry writable() {
        Registry open = readable();
        if (!verified) {
            String parent = top.substring(0, top.lastIndexOf('.'));
            if (!open.exists(parent)) {
                open.ensure(parent);
            }
            try {
                open.create(top, security());
            } catch (KeyExistsException e) {
                // Another process has just created it.
            }
            verify(open);
        }
        return open;
    }

    /** Refuses a user's tree that somebody else has created, who could read it or have keys in it. */
    private void verify(Registry open) {
        if (isPrivate) {
            KeySecurity security = open.security(top);
            if (!security.owner().equals(Optional.of(open.user())) || !security.groupRights().isEmpty()
                    || !security.otherRights().isEmpty()) {
                throw RegistryException.of(ResultCode.ACCESS_DENIED, top,
                                           "key '" + top + "' is not private to '" + open.user() + "'");
            }
        }
        verified = true;
    }

    private static <T> T checked(Supplier<T> call) throws BackingStoreException {
        try {
            return call.get();
        } catch (RegistryException e) {
            BackingStoreException failure = new BackingStoreException(e.getMessage());
            failure.initCause(e);
            throw failure;
        }
    }
}
