package velmar.qen.mgmt.registry;

import java.util.List;
import java.util.Optional;
import java.util.UUID;
import java.util.prefs.BackingStoreException;

/**
 * Tells the listeners of a tree of preferences what others change: other processes, and this one in other ways. What is
 * changed through the tree, the nodes tell themselves.
 */
final class PreferencesEvents {
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");
    /**
     * The note of the changes that the trees of this process make themselves. It tells them from those of others, which
     * may come from a process of the same number on a host of the same name.
     */
    static final String NOTE = "preferences of a Java program, " + UUID.randomUUID();

    private final PreferencesTree tree;
    private final RegistryPreferences root;
    /** Whether there is a watch. Guarded by this. */
    private boolean watching;

    PreferencesEvents(PreferencesTree tree, RegistryPreferences root) {
        this.tree = tree;
        this.root = root;
    }

    /**
     * Begins to watch the tree, unless it is watched. Returns whether it is: if the registry cannot be opened, it is not,
     * and the next call tries again.
     */
    synchronized boolean begin() {
        try {
            if (!watching) {
                tree.watch(this::take);
                watching = true;
            }
        } catch (RegistryException e) {
            LOGGER.log(System.Logger.Level.DEBUG, "preferences cannot be watched yet", e);
        }
        return watching;
    }

    private void take(RegistryEvent event) {
        if (event instanceof RegistryEvent.Changed change) {
            boolean own = change.note().equals(NOTE);
            change.changes().forEach(each -> attempt(() -> {
                if (own) {
                    confirm(each);
                } else {
                    take(each, change.revision());
                }
            }));
        } else if (event instanceof RegistryEvent.Failed failed) {
            LOGGER.log(System.Logger.Level.WARNING, "preferences are no longer watched", failed.failure());
            synchronized (this) {
                watching = false;
            }
        } else {
            attempt(root::tellDifferences);
        }
    }

    /** Something that calls listeners, which may fail, as the registry may. */
    private interface Telling {
        void run() throws BackingStoreException;
    }

    private static void attempt(Telling telling) {
        try {
            telling.run();
        } catch (BackingStoreException | RuntimeException e) {
            LOGGER.log(System.Logger.Level.WARNING, "listeners of preferences were not told of a change", e);
        }
    }

    /** The nodes have told their listeners of an own change, but perhaps before those were told of an earlier one. */
    private void confirm(KeyChange change) throws BackingStoreException {
        if (change.kind() == KeyChange.Kind.AT_OR_BELOW) {
            root.tellDifferences();
            return;
        }
        List<String> levels = tree.levelsOf(change.name());
        RegistryPreferences node = nodeAbove(levels);
        if (node != null && isPreference(levels) && lastOf(levels) != null) {
            node.tellDifference(lastOf(levels));
        }
    }

    private void take(KeyChange change, long revision) throws BackingStoreException {
        switch (change.kind()) {
            case CREATED -> present(change.name(), revision, true);
            case VALUE -> present(change.name(), revision, false);
            case MOVED -> {
                absent(change.formerName().orElse(""));
                present(change.name(), revision, true);
            }
            case DELETED -> absent(change.name());
            case AT_OR_BELOW -> root.tellDifferences();
            case SECURITY -> { }
        }
    }

    /** A key has been created, or has a new value. */
    private void present(String name, long revision, boolean isNew) throws BackingStoreException {
        List<String> levels = tree.levelsOf(name);
        RegistryPreferences node = nodeAbove(levels);
        String own = node == null ? null : lastOf(levels);
        if (own == null) {
            return;
        }
        if (isPreference(levels)) {
            node.tellChanged(own, tree.textAt(name, revision));
        } else if (isNew && !node.isToldOf(own)) {
            node.tellAdded(own);
        }
    }

    /** A key has been deleted or moved away, with everything below it. */
    private void absent(String name) throws BackingStoreException {
        List<String> levels = tree.levelsOf(name);
        RegistryPreferences node = nodeAbove(levels);
        String own = node == null ? null : lastOf(levels);
        if (own == null) {
            return;
        }
        if (isPreference(levels)) {
            node.tellChanged(own, null);
        } else {
            node.note(known -> known.removed(own));
            node.forgetRemovedChildren();
        }
    }

    private static boolean isPreference(List<String> levels) {
        return PreferenceNames.isPreference(levels.get(levels.size() - 1));
    }

    /** Returns the name of a node, or the key of a preference; null if it is neither. */
    private static String lastOf(List<String> levels) {
        return PreferenceNames.decode(levels.get(levels.size() - 1)).orElse(null);
    }

    /** Returns the node that a node or a preference is in, if it is in memory: nobody listens to one that is not. */
    private RegistryPreferences nodeAbove(List<String> levels) {
        RegistryPreferences node = levels.isEmpty() ? null : root;
        for (int i = 0; node != null && i < levels.size() - 1; i++) {
            Optional<String> name = PreferenceNames.decode(levels.get(i));
            node = name.isEmpty() ? null : node.childInMemory(name.get());
        }
        return node;
    }
}
