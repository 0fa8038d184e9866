package velmar.qen.mgmt.nativesystem;

import java.io.IOException;
import java.io.InputStream;
import java.net.JarURLConnection;
import java.net.URL;
import java.net.URLConnection;
import java.nio.channels.FileChannel;
import java.nio.channels.FileLock;
import java.nio.channels.OverlappingFileLockException;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.PosixFilePermission;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.stream.Stream;

/**
 * The native libraries of the jar, as files that the system can load.
 *
 * <p>They go into a directory of their own within a base directory that only this user can enter. Its name is derived
 * from the checksums in the jar, so a copy that is there already is used without being read again. A process holds a
 * lock on the copy that it uses; copies that no process holds are removed by the next one that uses another.
 */
final class ExtractedLibraries {
    private static final Set<PosixFilePermission> OWNER_ONLY = PosixFilePermissions.fromString("rwx------");
    private static final String LOCK = "in-use";
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");

    /** Held until the process ends. */
    private static final List<FileLock> HELD = new ArrayList<>();

    private final Map<String, URL> resources;

    /** Takes the libraries by their file names. */
    ExtractedLibraries(Map<String, URL> resources) {
        this.resources = resources;
    }

    /** Returns the places for a base directory, in the order in which they are to be tried. */
    static List<Place> places() {
        List<Place> places = new ArrayList<>();
        Path temporary = Path.of(System.getProperty("java.io.tmpdir"));
        places.add(() -> privateDirectory(temporary.resolve("tkv-" + user())));
        String runtime = System.getenv("XDG_RUNTIME_DIR");
        if (runtime != null && !runtime.isEmpty()) {
            places.add(() -> privateDirectory(Path.of(runtime, "tkv")));
        }
        places.add(() -> privateDirectory(cache().resolve("tkv")));
        places.add(() -> fresh(temporary));
        return places;
    }

    /** A place for a base directory. */
    interface Place {
        /** Returns the directory, which exists and which only this user can enter. */
        Path base() throws IOException;
    }

    private static String user() throws IOException {
        // Without an account, the JVM has "?" for a name.
        String name = System.getProperty("user.name", "?");
        return name.equals("?") ? String.valueOf(uid()) : name;
    }

    private static Object uid() throws IOException {
        return Files.getAttribute(Path.of("/proc/self"), "unix:uid");
    }

    private static Path cache() throws IOException {
        Path cache = Path.of(System.getProperty("user.home"), ".cache");
        if (!Files.isDirectory(cache)) {
            Files.createDirectory(cache, PosixFilePermissions.asFileAttribute(OWNER_ONLY));
        }
        return cache;
    }

    /** Returns a new directory, which is removed when the process ends. */
    private static Path fresh(Path temporary) throws IOException {
        Path directory = Files.createTempDirectory(temporary, "tkv-", PosixFilePermissions.asFileAttribute(OWNER_ONLY));
        Runtime.getRuntime().addShutdownHook(new Thread(() -> {
            try (Stream<Path> children = Files.list(directory)) {
                children.forEach(ExtractedLibraries::deleteCopy);
                Files.delete(directory);
            } catch (IOException e) {
                LOGGER.log(System.Logger.Level.DEBUG, () -> directory + " was not removed: " + e);
            }
        }));
        return directory;
    }

    private static Path privateDirectory(Path directory) throws IOException {
        if (!Files.exists(directory, LinkOption.NOFOLLOW_LINKS)) {
            try {
                Files.createDirectory(directory, PosixFilePermissions.asFileAttribute(OWNER_ONLY));
            } catch (FileAlreadyExistsException e) {
                LOGGER.log(System.Logger.Level.DEBUG, () -> directory + " was created by another process meanwhile");
            }
        }
        Map<String, Object> found = Files.readAttributes(directory, "unix:uid,isDirectory,permissions",
                                                         LinkOption.NOFOLLOW_LINKS);
        if (!uid().equals(found.get("uid")) || !Boolean.TRUE.equals(found.get("isDirectory"))
                || !OWNER_ONLY.equals(found.get("permissions"))) {
            throw new IOException(directory + " is not a directory that belongs to this user alone (mode 0700)");
        }
        int parent = (int) Files.getAttribute(directory.toAbsolutePath().getParent(), "unix:mode");
        if ((parent & 0002) != 0 && (parent & 01000) == 0) {
            throw new IOException(directory + " can be replaced by others, who may write to its parent directory");
        }
        return directory;
    }

    /**
     * Returns the directory of this jar's libraries within a base directory, after extracting those that are missing.
     *
     * @throws IOException if the directory cannot be used, with the reason
     */
    Path extractTo(Path base) throws IOException {
        if (FileSystems.forbidsExecution(base)) {
            throw new IOException(base + " is on a file system that is mounted with noexec, which no library can be"
                    + " loaded from");
        }
        Path directory = hold(base.resolve(name()));
        for (Map.Entry<String, URL> resource : resources.entrySet()) {
            place(directory.resolve(resource.getKey()), resource.getValue());
        }
        removeOthers(base, directory);
        return directory;
    }

    /** Returns a name that other contents do not have: the checksums and sizes of the libraries. */
    private String name() throws IOException {
        StringBuilder name = new StringBuilder();
        for (URL resource : resources.values()) {
            URLConnection connection = resource.openConnection();
            // Classes in a directory have no checksums; there, the time of the last change has to do.
            long mark = connection instanceof JarURLConnection jar ? jar.getJarEntry().getCrc()
                                                                   : connection.getLastModified();
            name.append(String.format("%s%x-%x", name.isEmpty() ? "" : "-", mark, size(resource)));
        }
        return name.toString();
    }

    private static long size(URL resource) throws IOException {
        URLConnection connection = resource.openConnection();
        return connection instanceof JarURLConnection jar ? jar.getJarEntry().getSize()
                                                          : connection.getContentLengthLong();
    }

    /** Creates the directory of a copy if need be, and locks it against removal. */
    private static Path hold(Path directory) throws IOException {
        while (true) {
            privateDirectory(directory);
            Path file = directory.resolve(LOCK);
            try {
                FileChannel channel = FileChannel.open(file, StandardOpenOption.READ, StandardOpenOption.WRITE,
                                                       StandardOpenOption.CREATE);
                HELD.add(channel.lock(0, Long.MAX_VALUE, true));
            } catch (OverlappingFileLockException e) {
                LOGGER.log(System.Logger.Level.DEBUG, () -> directory + " is held by this process already");
            } catch (NoSuchFileException e) {
                continue;  // removed by another process just now
            }
            if (Files.exists(file)) {
                return directory;
            }
        }
    }

    private static void place(Path file, URL resource) throws IOException {
        if (Files.isRegularFile(file, LinkOption.NOFOLLOW_LINKS) && Files.size(file) == size(resource)) {
            return;
        }
        // Renamed into place, so that another process never loads half a library.
        Path fresh = Files.createTempFile(file.getParent(), "new", ".so");
        try (InputStream in = resource.openStream()) {
            Files.copy(in, fresh, StandardCopyOption.REPLACE_EXISTING);
            Files.move(fresh, file, StandardCopyOption.ATOMIC_MOVE);
        } finally {
            Files.deleteIfExists(fresh);
        }
    }

    /** Removes the copies that no process holds, except for one. */
    private static void removeOthers(Path base, Path kept) {
        try (Stream<Path> copies = Files.list(base)) {
            copies.filter(copy -> !copy.equals(kept) && Files.isDirectory(copy, LinkOption.NOFOLLOW_LINKS))
                    .forEach(ExtractedLibraries::removeUnlessHeld);
        } catch (IOException e) {
            LOGGER.log(System.Logger.Level.DEBUG, () -> "old copies in " + base + " were not removed: " + e);
        }
    }

    private static void removeUnlessHeld(Path copy) {
        try (FileChannel channel = FileChannel.open(copy.resolve(LOCK), StandardOpenOption.READ,
                                                    StandardOpenOption.WRITE, StandardOpenOption.CREATE);
             FileLock lock = channel.tryLock()) {
            if (lock != null) {
                deleteCopy(copy);
            }
        } catch (IOException | OverlappingFileLockException e) {
            LOGGER.log(System.Logger.Level.DEBUG, () -> copy + " was not removed: " + e);
        }
    }

    /** Deletes a directory of files, the lock last. */
    private static void deleteCopy(Path copy) {
        try (Stream<Path> files = Files.list(copy)) {
            for (Path file : files.sorted(Comparator.comparing(file -> file.endsWith(LOCK))).toList()) {
                Files.delete(file);
            }
            Files.delete(copy);
        } catch (IOException e) {
            LOGGER.log(System.Logger.Level.DEBUG, () -> copy + " was not removed: " + e);
        }
    }
}
