package velmar.qen.mgmt.registry;

import java.util.List;
import java.util.NavigableMap;
import java.util.TreeMap;
import java.util.prefs.AbstractPreferences;

/** A copy of a node and everything below it as they were in one state, to be exported. Read by one thread. */
final class PreferencesSnapshot extends AbstractPreferences {
    private final boolean ofUser;
    private final NavigableMap<String, String> texts = new TreeMap<>();
    private final NavigableMap<String, PreferencesSnapshot> children = new TreeMap<>();

    private PreferencesSnapshot(PreferencesSnapshot parent, String name, boolean ofUser) {
        super(parent, name);
        this.ofUser = ofUser;
    }

    /** Returns a copy of the node at an absolute path, without anything in it. */
    static PreferencesSnapshot empty(String path, boolean ofUser) {
        PreferencesSnapshot node = new PreferencesSnapshot(null, "", ofUser);
        for (String name : path.substring(1).split("/")) {
            node = name.isEmpty() ? node : node.child(name);
        }
        return node;
    }

    private PreferencesSnapshot child(String name) {
        return children.computeIfAbsent(name, absent -> new PreferencesSnapshot(this, name, ofUser));
    }

    /** Adds a node, or a preference with its text, by its levels in the registry. */
    void add(List<String> levels, String text) {
        PreferencesSnapshot node = this;
        for (String level : levels) {
            String name = PreferenceNames.decode(level).orElseThrow();
            if (PreferenceNames.isPreference(level)) {
                node.texts.put(name, text);
            } else {
                node = node.child(name);
            }
        }
    }

    @Override
    public boolean isUserNode() {
        return ofUser;
    }

    @Override
    protected String getSpi(String key) {
        return texts.get(key);
    }

    @Override
    protected String[] keysSpi() {
        return texts.keySet().toArray(String[]::new);
    }

    @Override
    protected String[] childrenNamesSpi() {
        return children.keySet().toArray(String[]::new);
    }

    @Override
    protected AbstractPreferences childSpi(String name) {
        return child(name);
    }

    @Override
    protected void putSpi(String key, String value) {
        throw new UnsupportedOperationException();
    }

    @Override
    protected void removeSpi(String key) {
        throw new UnsupportedOperationException();
    }

    @Override
    protected void removeNodeSpi() {
        throw new UnsupportedOperationException();
    }

    @Override
    protected void syncSpi() {
        throw new UnsupportedOperationException();
    }

    @Override
    protected void flushSpi() {
        throw new UnsupportedOperationException();
    }
}
