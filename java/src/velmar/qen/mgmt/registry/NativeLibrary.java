package velmar.qen.mgmt.registry;

import velmar.qen.mgmt.nativesystem.TKVNative;

/** Loads the native library. This is not done by {@link RegistryNatives} itself, which loading initializes. */
final class NativeLibrary {
    static {
        // Loads the library, which registers the methods of both classes.
        new TKVNative();
    }

    private NativeLibrary() {}

    /** Loads the library unless it is loaded already. */
    static void load() {
        // The class is initialized now.
    }
}
