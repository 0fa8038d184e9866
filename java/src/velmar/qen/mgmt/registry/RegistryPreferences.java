package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.io.OutputStream;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Set;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.function.Consumer;
import java.util.prefs.AbstractPreferences;
import java.util.prefs.BackingStoreException;
import java.util.prefs.NodeChangeEvent;
import java.util.prefs.NodeChangeListener;
import java.util.prefs.PreferenceChangeEvent;
import java.util.prefs.PreferenceChangeListener;

/** A node of a tree of preferences in a registry. */
final class RegistryPreferences extends AbstractPreferences {
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");

    private final PreferencesTree tree;
    private final PreferencesEvents events;
    /** Listeners, to be told of what others change. The base class tells them of the rest. */
    private final List<PreferenceChangeListener> preferenceListeners = new CopyOnWriteArrayList<>();
    private final List<NodeChangeListener> nodeListeners = new CopyOnWriteArrayList<>();
    /** What the listeners know; null if there are none. Guarded by lock. */
    private ToldPreferences told;
    /** Null for the root. */
    private final RegistryPreferences above;
    /** Relative to the root of the tree. */
    private final String place;
    /** Whether the node has been found to be missing from the registry, and is being removed from memory only. */
    private boolean gone;

    /** Creates the root of a tree. */
    RegistryPreferences(PreferencesTree tree) {
        super(null, "");
        this.tree = tree;
        events = new PreferencesEvents(tree, this);
        above = null;
        place = "";
    }

    private RegistryPreferences(RegistryPreferences parent, String name, String place) {
        super(parent, name);
        this.tree = parent.tree;
        this.events = parent.events;
        this.above = parent;
        this.place = place;
        newNode = tree.create(place);
    }

    PreferencesTree tree() {
        return tree;
    }

    private String placeOfNode(String name) {
        return tree.join(place, PreferenceNames.ofNode(name));
    }

    private String placeOfPreference(String key) {
        return tree.join(place, PreferenceNames.ofPreference(key));
    }

    @Override
    protected String getSpi(String key) {
        return tree.find(placeOfPreference(key)).orElse(null);
    }

    @Override
    protected void putSpi(String key, String value) {
        tree.put(placeOfPreference(key), value);
        note(known -> known.changed(key, value));
    }

    /** Ignores a key that no preference can have: unlike {@code put}, {@code remove} takes keys of any length. */
    @Override
    protected void removeSpi(String key) {
        if (canHold(PreferenceNames.ofPreference(key))) {
            tree.remove(placeOfPreference(key));
            note(known -> known.changed(key, null));
        }
    }

    @Override
    protected String[] keysSpi() throws BackingStoreException {
        return tree.keys(place).toArray(String[]::new);
    }

    @Override
    protected String[] childrenNamesSpi() throws BackingStoreException {
        return isGone() ? new String[0] : tree.children(place).toArray(String[]::new);
    }

    @Override
    protected AbstractPreferences childSpi(String name) {
        RegistryPreferences child = new RegistryPreferences(this, name, placeOfNode(name));
        if (child.newNode) {
            note(known -> known.added(name));
        }
        return child;
    }

    @Override
    protected AbstractPreferences getChild(String name) throws BackingStoreException {
        boolean exists = canHold(PreferenceNames.ofNode(name)) && tree.exists(placeOfNode(name));
        return exists ? childSpi(name) : null;
    }

    private boolean canHold(String level) {
        return PreferenceNames.decode(level).isPresent() && tree.fits(place, level);
    }

    // --- Removing ---

    /** Removes everything below the node at once. What is left to do is to tell the listeners. */
    @Override
    public void removeNode() throws BackingStoreException {
        if (above == null) {
            throw new UnsupportedOperationException("the root cannot be removed");
        }
        synchronized (above.lock) {
            synchronized (lock) {
                if (!isRemoved() && !isGone()) {
                    bringInChildren();
                    tree.removeTree(place);
                }
                super.removeNode();
                above.note(known -> known.removed(name()));
            }
        }
    }

    /** Makes objects of all nodes below, for their parents' listeners. */
    private void bringInChildren() throws BackingStoreException {
        for (String child : childrenNames()) {
            ((RegistryPreferences) node(child)).bringInChildren();
        }
    }

    @Override
    protected void removeNodeSpi() throws BackingStoreException {
        if (!isGone()) {
            tree.removeTree(place);
        }
    }

    private boolean isGone() {
        return gone || above != null && above.isGone();
    }

    // --- Writing what is pending ---

    /** Writes what is pending here and below at once, and not node by node. */
    @Override
    public void flush() throws BackingStoreException {
        tree.flush(place);
    }

    @Override
    public void sync() throws BackingStoreException {
        synchronized (lock) {
            if (isRemoved()) {
                throw new IllegalStateException("Node has been removed");
            }
        }
        tree.flush(place);
        forgetRemovedChildren();
    }

    /** Removes the nodes from memory that other processes have removed from the registry, and tells their listeners. */
    void forgetRemovedChildren() throws BackingStoreException {
        synchronized (lock) {
            for (AbstractPreferences child : cachedChildren()) {
                RegistryPreferences node = (RegistryPreferences) child;
                if (tree.exists(node.place)) {
                    node.forgetRemovedChildren();
                } else {
                    node.forget();
                }
            }
        }
    }

    /** Called with the lock of the node above. */
    private void forget() throws BackingStoreException {
        synchronized (lock) {
            gone = true;
            super.removeNode();
        }
        above.note(known -> known.removed(name()));
    }

    /** Does nothing: {@link #flush} does it for the whole subtree. */
    @Override
    protected void flushSpi() {}

    /** Does nothing: {@link #sync} does it for the whole subtree. */
    @Override
    protected void syncSpi() {}

    // --- Listening ---

    @Override
    public void addPreferenceChangeListener(PreferenceChangeListener listener) {
        super.addPreferenceChangeListener(listener);
        preferenceListeners.add(listener);
        beginTelling();
    }

    @Override
    public void removePreferenceChangeListener(PreferenceChangeListener listener) {
        super.removePreferenceChangeListener(listener);
        preferenceListeners.remove(listener);
        endTelling();
    }

    @Override
    public void addNodeChangeListener(NodeChangeListener listener) {
        super.addNodeChangeListener(listener);
        nodeListeners.add(listener);
        beginTelling();
    }

    @Override
    public void removeNodeChangeListener(NodeChangeListener listener) {
        super.removeNodeChangeListener(listener);
        nodeListeners.remove(listener);
        endTelling();
    }

    /**
     * The watch begins first: a change that it does not report is one that was read here. If nothing can be read, the
     * listeners will be told of everything.
     */
    private void beginTelling() {
        boolean readable = events.begin();
        synchronized (lock) {
            if (told != null || isRemoved()) {
                return;
            }
            told = new ToldPreferences();
            try {
                told = readable ? read() : told;
            } catch (BackingStoreException e) {
                LOGGER.log(System.Logger.Level.DEBUG, "preferences cannot be read yet", e);
            }
        }
    }

    private ToldPreferences read() throws BackingStoreException {
        ToldPreferences present = new ToldPreferences();
        tree.visit(place, 1, (levels, text) -> {
            String name = PreferenceNames.decode(levels.get(0)).orElseThrow();
            if (text == null) {
                present.added(name);
            } else {
                present.changed(name, text);
            }
        });
        return present;
    }

    private void endTelling() {
        synchronized (lock) {
            if (preferenceListeners.isEmpty() && nodeListeners.isEmpty()) {
                told = null;
            }
        }
    }

    /** Notes what the listeners know from now on. */
    void note(Consumer<ToldPreferences> what) {
        synchronized (lock) {
            if (told != null) {
                what.accept(told);
            }
        }
    }

    /** Returns whether the listeners know that there is a child. */
    boolean isToldOf(String child) {
        synchronized (lock) {
            return told != null && told.hasChild(child);
        }
    }

    /** Returns a child; null if it is not in memory. */
    RegistryPreferences childInMemory(String name) {
        return childrenInMemory().stream().filter(child -> child.name().equals(name)).findFirst().orElse(null);
    }

    /** Tells the listeners of the text of a preference that others have changed; null if they have removed it. */
    void tellChanged(String key, String text) {
        note(known -> known.changed(key, text));
        PreferenceChangeEvent event = new PreferenceChangeEvent(this, key, text);
        preferenceListeners.forEach(listener -> listener.preferenceChange(event));
    }

    /** Tells the listeners of a child that others have created, unless it has gone again. */
    void tellAdded(String name) throws BackingStoreException {
        note(known -> known.added(name));
        if (!nodeListeners.isEmpty() && tree.exists(placeOfNode(name))) {
            NodeChangeEvent event = new NodeChangeEvent(this, node(name));
            nodeListeners.forEach(listener -> listener.childAdded(event));
        }
    }

    /** Tells the listeners of the text that a preference has now, unless they know it. */
    void tellDifference(String key) {
        String text;
        synchronized (lock) {
            if (told == null || isRemoved()) {
                return;
            }
            text = getSpi(key);
            if (Objects.equals(text, told.text(key))) {
                return;
            }
        }
        tellChanged(key, text);
    }

    /** Tells the listeners, here and below, of everything that they do not know, after changes that nobody lists. */
    void tellDifferences() throws BackingStoreException {
        forgetRemovedChildren();
        tellOwnDifferences();
        for (RegistryPreferences child : childrenInMemory()) {
            child.tellDifferences();
        }
    }

    private void tellOwnDifferences() throws BackingStoreException {
        Map<String, String> changed;
        Set<String> added;
        synchronized (lock) {
            if (told == null || isRemoved()) {
                return;
            }
            ToldPreferences now = read();
            changed = told.changedIn(now);
            added = told.addedIn(now);
            told = now;
        }
        for (String name : added) {
            tellAdded(name);
        }
        changed.forEach(this::tellChanged);
    }

    private List<RegistryPreferences> childrenInMemory() {
        synchronized (lock) {
            return Arrays.stream(cachedChildren()).map(RegistryPreferences.class::cast).toList();
        }
    }

    // --- Exporting ---

    @Override
    public void exportNode(OutputStream to) throws IOException, BackingStoreException {
        snapshot(1).exportNode(to);
    }

    @Override
    public void exportSubtree(OutputStream to) throws IOException, BackingStoreException {
        snapshot(Integer.MAX_VALUE).exportSubtree(to);
    }

    private PreferencesSnapshot snapshot(int depth) throws BackingStoreException {
        synchronized (lock) {
            if (isRemoved()) {
                throw new IllegalStateException("Node has been removed");
            }
        }
        PreferencesSnapshot copy = PreferencesSnapshot.empty(absolutePath(), isUserNode());
        tree.visit(place, depth, copy::add);
        return copy;
    }
}
