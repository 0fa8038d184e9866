package velmar.qen.mgmt.bench;

import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.prefs.BackingStoreException;
import java.util.prefs.Preferences;

/** java.util.prefs: groups are nodes, keys their preferences. It caches everything it has read. */
final class PreferencesPeer implements Peer {
    private Preferences root;

    PreferencesPeer(Path directory) {
        System.setProperty("java.util.prefs.userRoot", directory.toString());
    }

    @Override
    public String description() {
        return "java.util.prefs of Java " + System.getProperty("java.version")
                + ": a flush each write, which rewrites the group's file but does not make it durable";
    }

    @Override
    public void open() {
        root = Preferences.userRoot();
    }

    @Override
    public void fill(Dataset dataset) throws BackingStoreException {
        for (String name : dataset.fullNames(dataset.groups())) {
            node(parent(name)).put(level(name), dataset.value(name));
        }
        root.flush();
    }

    @Override
    public String read(String name) {
        return node(parent(name)).get(level(name), null);
    }

    @Override
    public List<String> list(String name) throws BackingStoreException {
        return Arrays.asList(node(name).keys());
    }

    @Override
    public void write(String name, String value) throws BackingStoreException {
        Preferences node = node(parent(name));
        node.put(level(name), value);
        node.flush();
    }

    @Override
    public Peer another() {
        return this;
    }

    @Override
    public void close() throws BackingStoreException {
        root.flush();
    }

    @Override
    public boolean supports(Scenario scenario) {
        return scenario != Scenario.OPEN_KEY && scenario != Scenario.OPEN_STORE;
    }

    private Preferences node(String name) {
        return root.node(name.replace('.', '/'));
    }

    private static String parent(String name) {
        return name.substring(0, name.lastIndexOf('.'));
    }

    private static String level(String name) {
        return name.substring(name.lastIndexOf('.') + 1);
    }
}
