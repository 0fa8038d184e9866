package results;

import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;

/** Makes result objects of classes that nobody else has. */
public final class Loaders {
    private static WeakReference<Class<?>> last;

    /** A Recorder of a class of its own. */
    public static Object recorder() throws Exception {
        URL[] here = {Loaders.class.getProtectionDomain().getCodeSource().getLocation()};
        Class<?> type = new URLClassLoader(here, null).loadClass("results.Recorder");
        last = new WeakReference<>(type);
        return type.getConstructor().newInstance();
    }

    /** Whether the class of the last recorder is gone. */
    public static boolean isUnloaded() {
        System.gc();
        return last.get() == null;
    }

    private Loaders() {}
}
