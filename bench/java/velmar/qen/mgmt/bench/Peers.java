package velmar.qen.mgmt.bench;

import java.lang.reflect.Constructor;
import java.nio.file.Path;
import java.util.Map;

/** The peers by name. They are looked up by class name, since those that need other jars may not be compiled. */
final class Peers {
    private static final Map<String, String> CLASSES = Map.of(
            "control", "ControlPeer",
            "tkv", "NativePeer",
            "registry", "RegistryPeer",
            "lmdb", "BareLmdbPeer",
            "sqlite", "SqlitePeer",
            "mvstore", "MvStorePeer",
            "bdb", "BerkeleyDbPeer",
            "prefs", "PreferencesPeer");

    private Peers() {}

    static Peer of(String name, Path directory) throws ReflectiveOperationException {
        String simpleName = CLASSES.get(name);
        if (simpleName == null) {
            throw new IllegalArgumentException("there is no peer '" + name + "'");
        }
        Constructor<?> constructor = Class.forName(Peers.class.getPackageName() + "." + simpleName)
                .getDeclaredConstructor(Path.class);
        return (Peer) constructor.newInstance(directory);
    }
}
