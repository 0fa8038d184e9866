package velmar.qen.mgmt.nativesystem;

import java.io.File;
import java.io.IOException;
import java.net.URL;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.concurrent.locks.LockSupport;

/**
 * Finds and loads {@code libtkv.so}: in the directories of the property {@code tkv.library.path}, in those of {@code
 * java.library.path}, and finally in the jar, whose copy is extracted together with the module for etcd.
 *
 * <p>A library that exists but cannot be loaded does not end the search; it is logged. The copy in the jar is extracted
 * to {@code tkv-<user>} below {@code java.io.tmpdir}. If that directory belongs to somebody else, others can enter it,
 * or libraries in it cannot be loaded, the next of these is used: {@code tkv} below {@code $XDG_RUNTIME_DIR}, {@code
 * tkv} below {@code ~/.cache}, and a new directory that is removed when the process ends.
 *
 * <p>A process can have only one copy of the library, for two would corrupt a registry that both have open: the locks of
 * its files belong to the process. A second class loader is therefore refused, wherever it would find another copy,
 * until the first one has been collected.
 */
final class TKVNativeLibrary {
    static final String PATH_PROPERTY = "tkv.library.path";
    private static final String LIBRARY = System.mapLibraryName("tkv");
    private static final String ETCD_MODULE = System.mapLibraryName("tkv_etcd");
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");

    /** Names the library that a class loader of this process has loaded, for the other class loaders. */
    private static final String LOADED_PROPERTY = "velmar.qen.mgmt.tkv.loaded";

    /** How long a library is waited for whose loader may have been collected, and how often it is tried meanwhile. */
    private static final Duration UNLOADING = Duration.ofSeconds(1);

    private static final Duration RETRY = Duration.ofMillis(10);

    private static boolean loaded;

    private final List<String> places = new ArrayList<>();
    private final List<Throwable> failures = new ArrayList<>();

    private TKVNativeLibrary() {}

    /**
     * Loads the library unless it is loaded already.
     *
     * @throws UnsatisfiedLinkError if no library can be loaded; names the system, every place tried and the property to
     *     set, and has the failures at each place as suppressed exceptions
     */
    static synchronized void load() {
        if (!loaded) {
            new TKVNativeLibrary().search();
            loaded = true;
        }
    }

    private void search() {
        if (!fromFormerLoader() && !fromDirectories(PATH_PROPERTY) && !fromDirectories("java.library.path") && !fromJar()) {
            throw failure();
        }
        failures.forEach(failure -> LOGGER.log(System.Logger.Level.WARNING, failure::getMessage));
    }

    /** Loads the library that another class loader has loaded before, which the JVM refuses while that one lives. */
    private boolean fromFormerLoader() {
        String former = System.getProperty(LOADED_PROPERTY);
        if (former == null || !Files.exists(Path.of(former))) {
            return false;
        }
        try {
            loadOnceUnloaded(former);
            return true;
        } catch (UnsatisfiedLinkError inUse) {
            UnsatisfiedLinkError refusal = new UnsatisfiedLinkError("another class loader of this process has loaded "
                    + former + ", and a process can load the library only once; put tkv.jar where both class loaders"
                    + " find it: on the class path, or in a class loader that is a parent of both");
            refusal.addSuppressed(inUse);
            throw refusal;
        }
    }

    /** Loads a library that may still be loaded: the JVM unloads it some moments after it has collected the loader. */
    private static void loadOnceUnloaded(String library) {
        long begin = System.nanoTime();
        while (true) {
            try {
                System.load(library);
                return;
            } catch (UnsatisfiedLinkError inUse) {
                if (System.nanoTime() - begin > UNLOADING.toNanos()) {
                    throw inUse;
                }
                LockSupport.parkNanos(RETRY.toNanos());
            }
        }
    }

    private boolean fromDirectories(String property) {
        String path = System.getProperty(property, "");
        for (String directory : path.split(File.pathSeparator)) {
            if (!directory.isEmpty() && fromDirectory(property, directory)) {
                return true;
            }
        }
        return false;
    }

    private boolean fromDirectory(String origin, String directory) {
        try {
            Path file = Path.of(directory, LIBRARY).toAbsolutePath();
            places.add(file + " (" + origin + ")");
            return Files.exists(file) && loads(file);
        } catch (InvalidPathException e) {
            // The JVM's character set for file names may lack a character, for example.
            places.add(directory + " (" + origin + ")");
            failures.add(e);
            return false;
        }
    }

    private boolean loads(Path file) {
        try {
            System.load(file.toString());
            System.setProperty(LOADED_PROPERTY, file.toString());
            return true;
        } catch (UnsatisfiedLinkError error) {
            failures.add(error);
            return false;
        }
    }

    private boolean fromJar() {
        String folder = "/native/" + platform() + "/";
        places.add("the jar's " + folder + LIBRARY);
        Map<String, URL> resources = new LinkedHashMap<>();
        for (String name : List.of(LIBRARY, ETCD_MODULE)) {
            URL resource = TKVNativeLibrary.class.getResource(folder + name);
            if (resource != null) {
                resources.put(name, resource);
            }
        }
        ExtractedLibraries libraries = new ExtractedLibraries(resources);
        return resources.containsKey(LIBRARY)
                && ExtractedLibraries.places().stream().anyMatch(place -> loads(libraries, place));
    }

    private boolean loads(ExtractedLibraries libraries, ExtractedLibraries.Place place) {
        try {
            return loads(libraries.extractTo(place.base()).resolve(LIBRARY));
        } catch (IOException | InvalidPathException e) {
            failures.add(e);
            return false;
        }
    }

    private static String platform() {
        return System.getProperty("os.name").toLowerCase(Locale.ROOT) + "-" + System.getProperty("os.arch");
    }

    private UnsatisfiedLinkError failure() {
        StringBuilder text = new StringBuilder("cannot load " + LIBRARY + " on " + System.getProperty("os.name") + " "
                + System.getProperty("os.arch") + "; set the property " + PATH_PROPERTY
                + " to the directory that holds it. Tried:");
        places.forEach(place -> text.append("\n  ").append(place));
        UnsatisfiedLinkError error = new UnsatisfiedLinkError(text.toString());
        failures.forEach(error::addSuppressed);
        return error;
    }
}
