package velmar.qen.mgmt.nativesystem;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermission;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.ArrayList;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Set;

/**
 * Finds and loads {@code libtkv.so}: in the directories of the property {@code tkv.library.path}, in those of {@code
 * java.library.path}, and last the copy in the jar.
 *
 * <p>A library that is there but cannot be loaded does not end the search; the log tells of it. The copy in the jar
 * has to become a file first: it goes, with the module for etcd, into a directory named by their content below {@code
 * java.io.tmpdir/tkv-<user>}, which nobody else may read or write. A file that is already there is used only when its
 * content is the jar's.
 */
final class TKVNativeLibrary {
    static final String PATH_PROPERTY = "tkv.library.path";
    private static final String LIBRARY = System.mapLibraryName("tkv");
    private static final String ETCD_MODULE = System.mapLibraryName("tkv_etcd");
    private static final Set<PosixFilePermission> OWNER_ONLY = PosixFilePermissions.fromString("rwx------");
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");

    private static boolean loaded;

    private final List<String> places = new ArrayList<>();
    private final List<Throwable> failures = new ArrayList<>();

    private TKVNativeLibrary() {}

    /**
     * Loads the library unless it is loaded.
     *
     * @throws UnsatisfiedLinkError naming system, every place tried and the property to set, with each place's own
     *     failure among its suppressed ones
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
            // Such as a name that the JVM's character set for file names does not have.
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
        try {
            Map<String, byte[]> files = new LinkedHashMap<>();
            for (String name : List.of(LIBRARY, ETCD_MODULE)) {
                byte[] content = resource(folder + name);
                if (content != null) {
                    files.put(name, content);
                }
            }
            return files.containsKey(LIBRARY) && loads(extract(files).resolve(LIBRARY));
        } catch (IOException | InvalidPathException | NoSuchAlgorithmException e) {
            failures.add(e);
            return false;
        }
    }

    private static byte[] resource(String name) throws IOException {
        try (InputStream in = TKVNativeLibrary.class.getResourceAsStream(name)) {
            return in == null ? null : in.readAllBytes();
        }
    }

    private static Path extract(Map<String, byte[]> files) throws IOException, NoSuchAlgorithmException {
        MessageDigest digest = MessageDigest.getInstance("SHA-256");
        files.values().forEach(digest::update);
        Path base = Path.of(System.getProperty("java.io.tmpdir"), "tkv-" + System.getProperty("user.name"));
        Path directory = privateDirectory(privateDirectory(base).resolve(HexFormat.of().formatHex(digest.digest())));
        for (Map.Entry<String, byte[]> file : files.entrySet()) {
            place(directory.resolve(file.getKey()), file.getValue());
        }
        return directory;
    }

    private static Path privateDirectory(Path directory) throws IOException {
        if (!Files.exists(directory, LinkOption.NOFOLLOW_LINKS)) {
            try {
                Files.createDirectory(directory, PosixFilePermissions.asFileAttribute(OWNER_ONLY));
            } catch (FileAlreadyExistsException e) {
                LOGGER.log(System.Logger.Level.DEBUG, () -> directory + " was made by another process meanwhile");
            }
        }
        Map<String, Object> found = Files.readAttributes(directory, "unix:uid,isDirectory,permissions",
                                                         LinkOption.NOFOLLOW_LINKS);
        Object user = Files.getAttribute(Path.of("/proc/self"), "unix:uid");
        if (!user.equals(found.get("uid")) || !Boolean.TRUE.equals(found.get("isDirectory"))
                || !OWNER_ONLY.equals(found.get("permissions"))) {
            throw new IOException(directory + " is not a directory of this user's alone (mode 0700)");
        }
        return directory;
    }

    private static void place(Path file, byte[] content) throws IOException {
        if (Files.isRegularFile(file, LinkOption.NOFOLLOW_LINKS)
                && MessageDigest.isEqual(Files.readAllBytes(file), content)) {
            return;
        }
        // Renamed into place, so that another process never loads half a library.
        Path fresh = Files.createTempFile(file.getParent(), "new", ".so");
        try {
            Files.write(fresh, content);
            Files.move(fresh, file, StandardCopyOption.ATOMIC_MOVE);
        } finally {
            Files.deleteIfExists(fresh);
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
