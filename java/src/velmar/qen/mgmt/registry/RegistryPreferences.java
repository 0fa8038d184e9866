package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.io.OutputStream;
import java.util.prefs.AbstractPreferences;
import java.util.prefs.BackingStoreException;

/** A node of a tree of preferences in a registry. */
final class RegistryPreferences extends AbstractPreferences {
    private final PreferencesTree tree;
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
        above = null;
        place = "";
    }

    private RegistryPreferences(RegistryPreferences parent, String name, String place) {
        super(parent, name);
        this.tree = parent.tree;
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

    @Override
    protected void removeSpi(String key) {
        tree.remove(placeOfPreference(key));
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
        return tree.exists(placeOfNode(name)) ? childSpi(name) : null;
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

    /** Removes the nodes from memory that other processes have removed from the registry. */
    private void forgetRemovedChildren() throws BackingStoreException {
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
