package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.io.InputStream;
import java.util.Objects;
import java.util.prefs.BackingStoreException;
import java.util.prefs.InvalidPreferencesFormatException;
import java.util.prefs.Preferences;
import java.util.prefs.PreferencesFactory;

/**
 * Keeps the preferences of {@link java.util.prefs} in the configured registry, for any program that is started with
 * {@code -Djava.util.prefs.PreferencesFactory=velmar.qen.mgmt.registry.RegistryPreferencesFactory}. The class is only
 * used if that property names it.
 *
 * <p><b>Where.</b> The user's tree is {@code preferences.users.}<i>user</i>. It is created with {@link
 * KeySecurity#privateToUser}, and not used if it belongs to somebody else or others have rights on it. The tree of the
 * system is {@code preferences.system}; it inherits its rights like any other key, and whoever may write there may
 * change it. The preference {@code port} of the node {@code /com/example} is the text of the key {@code
 * com.example.@port} below the tree's root. A dot in a name is written as {@code ~2E}, a tilde as {@code ~7E}, a NUL as
 * {@code ~00}, and an at sign at the beginning of a node's name as {@code ~40}.
 *
 * <p><b>Limits.</b> Names and values of any length that {@code Preferences} permits fit. A node or a preference whose
 * full name would have more than 64 levels or 1023 bytes is refused with an {@link IllegalArgumentException}.
 *
 * <p><b>Writing.</b> A change is written, durably, before the call returns, and other processes see it from then on. If
 * the registry cannot be written, a warning is logged, and this process keeps the change in memory and reads it from
 * there. {@link Preferences#flush} and {@link Preferences#sync} try to write it again, and throw a {@link
 * BackingStoreException} with the registry's message if that fails; what is still in memory when the process ends is
 * lost. A value that cannot be read is reported as the default, as {@code Preferences} specifies it.
 *
 * <p><b>Other processes.</b> Values, keys and the names of children are read from the registry at each call. {@code
 * sync} removes the nodes from this process that another one has removed; until then, a change recreates such a node.
 * Listeners are also told of the changes that others make: other processes, operators, and this process through a
 * {@link Registry}. A node that others remove is reported if this process has used it, and is then removed from this
 * process, as by {@code sync}. If the registry has forgotten changes before this process could read them, or does not
 * list what a large one has changed, the listeners are told how the preferences and nodes differ from what they know,
 * without the steps between. In the registry's log, changes made through {@code Preferences} have a note that says so.
 *
 * <p><b>What is atomic.</b> Each {@code put}, {@code remove} and {@code removeNode}, with everything below the node.
 * {@code exportNode} and {@code exportSubtree} write one state of the registry. {@code flush} writes all values and
 * nodes that are still to be written at once, and then removes preferences one by one. {@link
 * Preferences#importPreferences} makes a change for each preference; {@link #importPreferences} makes a single one.
 *
 * <p>All threads may use all nodes.
 */
public final class RegistryPreferencesFactory implements PreferencesFactory {
    /** The trees of this process, in two openings of the configured registry that end with the process. */
    private static final class Roots {
        static final RegistryPreferences USER = new RegistryPreferences(PreferencesTree.ofUser(Roots::open));
        static final RegistryPreferences SYSTEM = new RegistryPreferences(PreferencesTree.ofSystem(Roots::open));

        private static Registry open() {
            return Registry.open(RegistryOptions.builder().note(PreferencesEvents.NOTE).build());
        }
    }

    /** Creates a factory. All factories return the same trees. */
    public RegistryPreferencesFactory() {}

    @Override
    public Preferences userRoot() {
        return Roots.USER;
    }

    @Override
    public Preferences systemRoot() {
        return Roots.SYSTEM;
    }

    /**
     * Imports preferences as {@link Preferences#importPreferences} does, but all or nothing: other processes see either
     * none of them or all.
     *
     * @param from a document, as {@link Preferences#exportSubtree} writes it
     * @throws IOException if the document cannot be read
     * @throws InvalidPreferencesFormatException if the document is not well-formed
     * @throws BackingStoreException if the registry cannot be written; nothing has been imported
     * @throws IllegalStateException if this process keeps its preferences elsewhere
     */
    public static void importPreferences(InputStream from)
            throws IOException, InvalidPreferencesFormatException, BackingStoreException {
        Objects.requireNonNull(from, "from");
        if (Preferences.userRoot() != Roots.USER || Preferences.systemRoot() != Roots.SYSTEM) {
            throw new IllegalStateException("the preferences of this process are not in the registry");
        }
        PreferencesTree user = Roots.USER.tree();
        PreferencesTree system = Roots.SYSTEM.tree();
        user.collect();
        system.collect();
        try {
            Preferences.importPreferences(from);
            user.commit();
            system.commit();
        } finally {
            user.discard();
            system.discard();
        }
    }
}
