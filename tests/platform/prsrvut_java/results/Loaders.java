package results;

import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;

/** Makes result objects of classes that are loaded for each of them anew. */
public final class Loaders {
    private static WeakReference<Class<?>> last;

    /** A Recorder of a class of its own. */
    public static Object recorder() throws Exception {
        return ofAnotherLoader("results.Recorder", null);
    }

    /** A TKVResult of a class of its own, to which the class that native code knows is not related. */
    public static Object foreignResult() throws Exception {
        return ofAnotherLoader("velmar.qen.mgmt.nativesystem.TKVResult", null);
    }

    /** A PlainSub of a class of its own, whose superclass is the TKVResult that native code knows. */
    public static Object subclass() throws Exception {
        ClassLoader withoutResults = new ClassLoader(null) {
            @Override
            protected Class<?> findClass(String name) throws ClassNotFoundException {
                if (name.startsWith("results.")) {
                    throw new ClassNotFoundException(name);
                }
                return Class.forName(name);
            }
        };
        return ofAnotherLoader("results.PlainSub", withoutResults);
    }

    private static Object ofAnotherLoader(String name, ClassLoader parent) throws Exception {
        URL[] here = {Loaders.class.getProtectionDomain().getCodeSource().getLocation()};
        Class<?> type = new URLClassLoader(here, parent).loadClass(name);
        last = new WeakReference<>(type);
        return type.getConstructor().newInstance();
    }

    /** Whether the class of the last object is gone. */
    public static boolean isUnloaded() {
        System.gc();
        return last.get() == null;
    }

    private Loaders() {}
}
