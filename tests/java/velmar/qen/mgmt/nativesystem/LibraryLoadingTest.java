package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.FileTime;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Each search for the library needs a JVM that has not loaded it yet. On a cluster, the library loads the module for
 * etcd, which must come from the library's own directory.
 */
class LibraryLoadingTest {
    private static final String LIBRARY = "libtkv.so";
    private static final String ETCD_MODULE = "libtkv_etcd.so";

    @TempDir
    private Path directory;

    /**
     * Opens a session and prints the files that native code was loaded from. A # in the explicit directories stands for
     * a NUL, which a command line cannot contain.
     */
    static final class Loader {
        private Loader() {}

        public static void main(String[] arguments) throws IOException {
            try {
                System.setProperty(TKVNativeLibrary.PATH_PROPERTY,
                                   System.getProperty(TKVNativeLibrary.PATH_PROPERTY).replace('#', '\0'));
                TKVNative tkv = new TKVNative();
                TKVResult result = new TKVResult();
                tkv.initializeTKVLevel(0, result);
                System.out.println("status " + result.getStatus());
                try (Stream<String> maps = Files.lines(Path.of("/proc/self/maps"))) {
                    maps.map(line -> line.replaceFirst(".* ", "")).filter(Loader::isOurs).distinct().sorted()
                            .forEach(file -> System.out.println("from " + file));
                }
                tkv.terminateTKV(result);
            } catch (UnsatisfiedLinkError error) {
                System.out.println("error " + error.getMessage());
                Stream.of(error.getSuppressed()).forEach(cause -> System.out.println("suppressed " + cause));
            }
        }

        private static boolean isOurs(String file) {
            return file.endsWith("/" + LIBRARY) || file.endsWith("/" + ETCD_MODULE);
        }
    }

    private String load(String explicit, String libraryPath) throws IOException, InterruptedException {
        return load(explicit, libraryPath, directory, "");
    }

    private String load(String explicit, String libraryPath, Path temporary, String runtime)
            throws IOException, InterruptedException {
        List<String> options = List.of("-Dtkv.library.path=" + explicit, "-Djava.library.path=" + libraryPath,
                                       "-Djava.io.tmpdir=" + temporary, "-Duser.home=" + directory.resolve("home"));
        ChildJvm.Outcome outcome = ChildJvm.run(options, Map.of("XDG_RUNTIME_DIR", runtime), Loader.class);
        assertEquals(0, outcome.exit(), outcome.output());
        return outcome.output();
    }

    /** Returns the base directory below the directory for temporary files. */
    private Path base() {
        return directory.resolve("tkv-" + System.getProperty("user.name"));
    }

    /** Returns the directories below a base directory, one for each copy. */
    private static List<Path> copies(Path base) throws IOException {
        try (Stream<Path> copies = Files.list(base)) {
            return copies.toList();
        }
    }

    private static void share(Path directory) throws IOException {
        Files.setPosixFilePermissions(directory, PosixFilePermissions.fromString("rwxrwx---"));
    }

    /** Asserts that the library was loaded from below a directory, after a warning about the base directory. */
    private void assertLoadedFrom(Path expected, String output) {
        assertTrue(output.contains("status true\nfrom " + expected), output);
        assertTrue(output.contains("WARNING: " + base() + " is not a directory that belongs to this user alone"),
                   output);
    }

    private static Path built() {
        return Path.of(System.getProperty("tkv.library.path"), LIBRARY);
    }

    /** Returns the files of this build: the library, and the module if it was built. */
    private static List<Path> allBuilt() {
        return Stream.of(LIBRARY, ETCD_MODULE).map(built()::resolveSibling).filter(Files::exists).toList();
    }

    /** Returns the content of a library in the jar, where it is stripped. */
    private static byte[] inJar(String name) throws IOException {
        try (ZipFile jar = new ZipFile(System.getProperty("tkv.jar"))) {
            ZipEntry library = jar.stream().filter(entry -> entry.getName().endsWith("/" + name)).findFirst()
                    .orElseThrow();
            return jar.getInputStream(library).readAllBytes();
        }
    }

    /** Returns what the loader prints if everything came from a directory. */
    private static String openedFrom(Path directory) {
        return "status true\nfrom " + directory.resolve(LIBRARY) + "\n"
                + (Configuration.onCluster() ? "from " + directory.resolve(ETCD_MODULE) + "\n" : "");
    }

    private Path extracted() throws IOException {
        try (Stream<Path> files = Files.walk(directory)) {
            return files.filter(file -> file.endsWith(LIBRARY)).findFirst().orElseThrow();
        }
    }

    @Test
    void takesTheExplicitDirectoryFirst() throws IOException, InterruptedException {
        Path other = Files.createDirectory(directory.resolve("other"));
        for (Path file : allBuilt()) {
            Files.copy(file, other.resolve(file.getFileName()));
        }
        assertEquals(openedFrom(other), load(other.toString(), built().getParent().toString()));
    }

    @Test
    void takesTheLibraryPathNext() throws IOException, InterruptedException {
        assertEquals(openedFrom(built().getParent()), load("", "/none:" + built().getParent()));
    }

    @Test
    void takesTheCopyInTheJarLast() throws IOException, InterruptedException {
        String output = load("", "/none");
        Path file = extracted();
        assertEquals(openedFrom(file.getParent()), output);
        for (Path built : allBuilt()) {
            String name = built.getFileName().toString();
            assertArrayEquals(inJar(name), Files.readAllBytes(file.resolveSibling(name)), name);
        }
        assertEquals("rwx------", PosixFilePermissions.toString(Files.getPosixFilePermissions(file.getParent())));
        assertEquals("rwx------",
                     PosixFilePermissions.toString(Files.getPosixFilePermissions(file.getParent().getParent())));
    }

    @Test
    void replacesAnExtractedCopyThatIsNotTheJars() throws IOException, InterruptedException {
        load("", "/none");
        Path file = extracted();
        Files.writeString(file, "not a library");
        assertTrue(load("", "/none").startsWith("status true\n"));
        assertArrayEquals(inJar(LIBRARY), Files.readAllBytes(file));
    }

    @Test
    void doesNotWriteACopyThatIsThereAgain() throws IOException, InterruptedException {
        load("", "/none");
        Path file = extracted();
        FileTime written = Files.getLastModifiedTime(file);
        assertEquals(openedFrom(file.getParent()), load("", "/none"));
        assertEquals(written, Files.getLastModifiedTime(extracted()));
        assertEquals(1, copies(base()).size());
    }

    @Test
    void removesOldCopiesThatNobodyUses() throws IOException, InterruptedException {
        Files.createDirectory(base());
        Files.setPosixFilePermissions(base(), PosixFilePermissions.fromString("rwx------"));
        Path old = Files.createDirectory(base().resolve("0123456789abcdef"));
        Files.writeString(old.resolve(LIBRARY), "an old library");
        Path used = Files.createDirectory(base().resolve("fedcba9876543210"));
        Files.writeString(used.resolve(LIBRARY), "an old library in use");
        try (FileChannel lock = FileChannel.open(used.resolve("in-use"), StandardOpenOption.CREATE,
                                                 StandardOpenOption.READ, StandardOpenOption.WRITE)) {
            lock.lock(0, Long.MAX_VALUE, true);
            load("", "/none");
        }
        assertFalse(Files.exists(old));
        assertEquals("an old library in use", Files.readString(used.resolve(LIBRARY)));
    }

    @Test
    void usesTheRuntimeDirectoryWhenOthersCanEnterTheFirst() throws IOException, InterruptedException {
        share(Files.createDirectory(base()));
        Path runtime = Files.createDirectory(directory.resolve("run"));
        String output = load("", "/none", directory, runtime.toString());
        assertLoadedFrom(runtime.resolve("tkv"), output);
        assertEquals(List.of(), copies(base()));
    }

    @Test
    void usesTheCacheWhenThereIsNoRuntimeDirectory() throws IOException, InterruptedException {
        share(Files.createDirectory(base()));
        Path home = Files.createDirectory(directory.resolve("home"));
        assertLoadedFrom(home.resolve(".cache/tkv"), load("", "/none"));
        String absent = directory.resolve("absent").toString();
        assertLoadedFrom(home.resolve(".cache/tkv"), load("", "/none", directory, absent));
    }

    @Test
    void usesANewDirectoryInTheEndAndRemovesIt() throws IOException, InterruptedException {
        share(Files.createDirectory(base()));
        assertLoadedFrom(directory.resolve("tkv-"), load("", "/none"));
        assertEquals(List.of(base()), copies(directory));
    }

    @Test
    void doesNotUseAnotherUsersDirectoryOrALink() throws IOException, InterruptedException {
        Path elsewhere = Files.createDirectory(directory.resolve("elsewhere"));
        Files.createSymbolicLink(base(), elsewhere);
        assertLoadedFrom(directory.resolve("tkv-"), load("", "/none"));
        assertEquals(List.of(), copies(elsewhere));
    }

    @Test
    void doesNotUseADirectoryThatOthersCanReplace() throws IOException, InterruptedException {
        Path open = Files.createDirectory(directory.resolve("open"));
        Files.setPosixFilePermissions(open, PosixFilePermissions.fromString("rwxrwxrwx"));
        String output = load("", "/none", open, Files.createDirectory(directory.resolve("run")).toString());
        assertTrue(output.contains("from " + directory.resolve("run/tkv")), output);
        assertTrue(output.contains("tkv-" + System.getProperty("user.name") + " can be replaced by others"), output);
    }

    @Test
    @AsRoot
    void passesOverAFileSystemThatForbidsExecution() throws IOException, InterruptedException {
        Path mounted = Files.createDirectory(directory.resolve("no exec"));
        Path runtime = Files.createDirectory(directory.resolve("run"));
        List<String> command = List.of(
                "unshare", "--mount", "sh", "-c",
                "mount -t tmpfs -o noexec,mode=700 none \"$1\" && shift && exec \"$@\"", "sh",
                mounted.toString(), System.getProperty("java.home") + "/bin/java", "-Xcheck:jni",
                "-Dtkv.library.path=", "-Djava.library.path=/none", "-Djava.io.tmpdir=" + mounted, "-cp",
                System.getProperty("java.class.path"), Loader.class.getName());
        ProcessBuilder builder = new ProcessBuilder(command).redirectErrorStream(true);
        builder.environment().put("XDG_RUNTIME_DIR", runtime.toString());
        Process process = builder.start();
        String output = new String(process.getInputStream().readAllBytes());
        assertEquals(0, process.waitFor(), output);
        assertTrue(output.contains("is on a file system that is mounted with noexec"), output);
        assertTrue(output.contains("status true\nfrom " + runtime.resolve("tkv")), output);
    }

    @Test
    void saysWhereItLookedAndWhyThatFailed() throws IOException, InterruptedException {
        Path broken = Files.createDirectory(directory.resolve("broken"));
        Files.writeString(broken.resolve(LIBRARY), "not a library");
        Path absent = directory.resolve("absent");
        String output = load(broken.toString(), "/none:/nowhere", absent, absent.toString());
        String system = System.getProperty("os.name") + " " + System.getProperty("os.arch");
        assertTrue(output.contains("error cannot load libtkv.so on " + system
                + "; set the property tkv.library.path to the directory that holds it. Tried:\n  "
                + broken.resolve(LIBRARY) + " (tkv.library.path)\n  /none/libtkv.so (java.library.path)\n"
                + "  /nowhere/libtkv.so (java.library.path)\n  the jar's /native/"), output);
        assertTrue(output.contains("suppressed java.lang.UnsatisfiedLinkError: " + broken.resolve(LIBRARY)), output);
        for (Path place : List.of(absent.resolve("tkv-" + System.getProperty("user.name")), absent.resolve("tkv"),
                                  directory.resolve("home/.cache"), absent.resolve("tkv-"))) {
            assertTrue(output.contains("suppressed java.nio.file.NoSuchFileException: " + place), output);
        }
    }

    @Test
    void goesOnAfterALibraryThatCannotBeLoadedAndLogsIt() throws IOException, InterruptedException {
        Path broken = Files.createDirectory(directory.resolve("broken"));
        Files.writeString(broken.resolve(LIBRARY), "not a library");
        String output = load(broken.toString(), built().getParent().toString());
        assertTrue(output.contains("WARNING: " + broken.resolve(LIBRARY)), output);
        assertTrue(output.contains("from " + built() + "\n"), output);
    }

    @Test
    void goesOnAfterADirectoryThatCannotBe() throws IOException, InterruptedException {
        String output = load("impossible#:" + built().getParent(), "/none");
        assertTrue(output.contains("WARNING: Nul character not allowed: impossible"), output);
        assertTrue(output.contains(openedFrom(built().getParent())), output);
    }

    @Test
    void theJarIsANamedModule() throws IOException, InterruptedException {
        Path jar = Path.of(System.getProperty("tkv.jar"));
        Process java = new ProcessBuilder(System.getProperty("java.home") + "/bin/java", "--module-path",
                                          jar.toString(), "--describe-module", "velmar.qen.mgmt").start();
        String description = new String(java.getInputStream().readAllBytes());
        assertEquals(0, java.waitFor());
        assertTrue(description.contains("exports velmar.qen.mgmt.nativesystem"), description);
        assertFalse(description.contains("requires java.logging"), description);
    }
}
