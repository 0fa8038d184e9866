package velmar.qen.mgmt.nativesystem;

import java.io.File;
import java.io.IOException;
import java.net.URL;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;

/**
 * Finds and loads {@code libtkv.so}: in the directories of the property {@code tkv.library.path}, in those of {@code
 * java.library.path}, and finally in the jar, whose copy is extracted together with the module for etcd.
 *
 * <p>A library that exists but cannot be loaded does not end the search; it is logged. The copy in the jar is extracted
 * to {@code tkv-<user>} below {@code java.io.tmpdir}. If that directory belongs to somebody else, others can enter it,
 * or libraries in it cannot be loaded, the next of these is used: {@code tkv} below {@code $XDG_RUNTIME_DIR}, {@code
 * tkv} below {@code ~/.cache}, and a new directory that is removed when the process ends.
 */
final class TKVNativeLibrary {
    static final String PATH_PROPERTY = "tkv.library.path";
    private static final String LIBRARY = System.mapLibraryName("tkv");
    private static final String ETCD_MODULE = System.mapLibraryName("tkv_etcd");
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");

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
        if (!fromDirectories(PATH_PROPERTY) && !fromDirectories("java.library.path") && !fromJar()) {
            throw failure();
        }
        failures.forEach(failure -> LOGGER.log(System.Logger.Level.WARNING, failure::getMessage));
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
