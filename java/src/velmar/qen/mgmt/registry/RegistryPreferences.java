package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.io.OutputStream;
import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.prefs.AbstractPreferences;
import java.util.prefs.BackingStoreException;
import java.util.prefs.NodeChangeEvent;
import java.util.prefs.NodeChangeListener;
import java.util.prefs.PreferenceChangeEvent;
import java.util.prefs.PreferenceChangeListener;

/** A node of a tree of preferences in a registry. */
final class RegistryPreferences extends AbstractPreferences {
    private final PreferencesTree tree;
    private final PreferencesEvents events;
    /** Listeners, to be told of what other processes change. The base class tells them of the rest. */
    private final List<PreferenceChangeListener> preferenceListeners = new CopyOnWriteArrayList<>();
    private final List<NodeChangeListener> nodeListeners = new CopyOnWriteArrayList<>();
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
    }

    /** Ignores a key that no preference can have: unlike {@code put}, {@code remove} takes keys of any length. */
    @Override
    protected void removeSpi(String key) {
        if (canHold(PreferenceNames.ofPreference(key))) {
            tree.remove(placeOfPreference(key));
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
        return new RegistryPreferences(this, name, placeOfNode(name));
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

    private void forget() throws BackingStoreException {
        synchronized (lock) {
            gone = true;
            super.removeNode();
        }
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
        events.begin();
    }

    @Override
    public void removePreferenceChangeListener(PreferenceChangeListener listener) {
        super.removePreferenceChangeListener(listener);
        preferenceListeners.remove(listener);
    }

    @Override
    public void addNodeChangeListener(NodeChangeListener listener) {
        super.addNodeChangeListener(listener);
        nodeListeners.add(listener);
        events.begin();
    }

    @Override
    public void removeNodeChangeListener(NodeChangeListener listener) {
        super.removeNodeChangeListener(listener);
        nodeListeners.remove(listener);
    }

    /** Returns a child; null if it is not in memory. */
    RegistryPreferences childInMemory(String name) {
        synchronized (lock) {
            for (AbstractPreferences child : cachedChildren()) {
                if (child.name().equals(name)) {
                    return (RegistryPreferences) child;
                }
            }
            return null;
        }
    }

    /** Tells the listeners of the text of a preference that another process has changed; null if it has removed it. */
    void tellChanged(String key, String text) {
        PreferenceChangeEvent event = new PreferenceChangeEvent(this, key, text);
        preferenceListeners.forEach(listener -> listener.preferenceChange(event));
    }

    /** Tells the listeners of a child that another process has created, unless it has gone again. */
    void tellAdded(String name) throws BackingStoreException {
        if (!nodeListeners.isEmpty() && tree.exists(placeOfNode(name))) {
            NodeChangeEvent event = new NodeChangeEvent(this, node(name));
            nodeListeners.forEach(listener -> listener.childAdded(event));
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
