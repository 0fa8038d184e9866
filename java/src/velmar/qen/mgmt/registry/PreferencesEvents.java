package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Optional;
import java.util.prefs.BackingStoreException;

/**
 * Tells the listeners of a tree of preferences what other processes change. What this process changes, the nodes tell
 * themselves.
 */
final class PreferencesEvents {
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");
    private static final long PROCESS = ProcessHandle.current().pid();
    private static final String HOST = host();

    private final PreferencesTree tree;
    private final RegistryPreferences root;
    /** Whether there is a watch. Guarded by this. */
    private boolean watching;

    PreferencesEvents(PreferencesTree tree, RegistryPreferences root) {
        this.tree = tree;
        this.root = root;
    }

    /** Returns the name by which the system knows this machine or container. */
    private static String host() {
        try {
            return Files.readString(Path.of("/proc/sys/kernel/hostname")).strip();
        } catch (IOException e) {
            return "";
        }
    }

    /** Begins to watch the tree, unless it is watched. If the registry cannot be opened, the next call tries again. */
    synchronized void begin() {
        try {
            if (!watching) {
                tree.watch(this::take);
                watching = true;
            }
        } catch (RegistryException e) {
            LOGGER.log(System.Logger.Level.DEBUG, "preferences cannot be watched yet", e);
        }
    }

    private void take(RegistryEvent event) {
        if (event instanceof RegistryEvent.Changed change) {
            if (change.process() != PROCESS || !change.host().equals(HOST)) {
                change.changes().forEach(each -> attempt(() -> take(each, change.revision())));
            }
        } else if (event instanceof RegistryEvent.Failed failed) {
            LOGGER.log(System.Logger.Level.WARNING, "preferences are no longer watched", failed.failure());
            synchronized (this) {
                watching = false;
            }
        } else {
            attempt(root::forgetRemovedChildren);
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

    private void take(KeyChange change, long revision) throws BackingStoreException {
        switch (change.kind()) {
            case CREATED -> present(change.name(), revision, true);
            case VALUE -> present(change.name(), revision, false);
            case MOVED -> {
                absent(change.formerName().orElse(""));
                present(change.name(), revision, true);
            }
            case DELETED -> absent(change.name());
            case AT_OR_BELOW -> root.forgetRemovedChildren();
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
        } else if (isNew) {
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
