package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Each search for the library needs a JVM that has not loaded it yet. The library brings what the registry's location
 * needs: on a cluster the module for etcd, which must come from beside the library.
 */
class LibraryLoadingTest {
    private static final String LIBRARY = "libtkv.so";
    private static final String ETCD_MODULE = "libtkv_etcd.so";

    @TempDir
    private Path directory;

    /**
     * Opens a session and tells which files the native code came from. A # in the explicit directories stands for the
     * NUL, which no path may have and no command line can.
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
        List<String> options = List.of("-Dtkv.library.path=" + explicit, "-Djava.library.path=" + libraryPath,
                                       "-Djava.io.tmpdir=" + directory);
        ChildJvm.Outcome outcome = ChildJvm.run(options, Map.of(), Loader.class);
        assertEquals(0, outcome.exit(), outcome.output());
        return outcome.output();
    }

    private static Path built() {
        return Path.of(System.getProperty("tkv.library.path"), LIBRARY);
    }

    /** The files of this build: the library, and the module unless it was left out. */
    private static List<Path> allBuilt() {
        return Stream.of(LIBRARY, ETCD_MODULE).map(built()::resolveSibling).filter(Files::exists).toList();
    }

    /** What the loader says when all came from a directory. */
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
            assertEquals(-1, Files.mismatch(built, file.resolveSibling(built.getFileName())));
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
        assertArrayEquals(Files.readAllBytes(built()), Files.readAllBytes(file));
    }

    @Test
    void refusesADirectoryThatOthersMayUse() throws IOException, InterruptedException {
        load("", "/none");
        Path base = extracted().getParent().getParent();
        Files.setPosixFilePermissions(base, PosixFilePermissions.fromString("rwxrwx---"));
        String output = load("", "/none");
        assertTrue(output.contains("suppressed java.io.IOException: " + base), output);
        Files.setPosixFilePermissions(base, PosixFilePermissions.fromString("rwx------"));
    }

    @Test
    void saysWhereItLookedAndWhyThatFailed() throws IOException, InterruptedException {
        Path broken = Files.createDirectory(directory.resolve("broken"));
        Files.writeString(broken.resolve(LIBRARY), "not a library");
        Path occupied = Files.createFile(directory.resolve("tkv-" + System.getProperty("user.name")));
        String output = load(broken.toString(), "/none:/nowhere");
        String system = System.getProperty("os.name") + " " + System.getProperty("os.arch");
        assertTrue(output.contains("error cannot load libtkv.so on " + system
                + "; set the property tkv.library.path to the directory that holds it. Tried:\n  "
                + broken.resolve(LIBRARY) + " (tkv.library.path)\n  /none/libtkv.so (java.library.path)\n"
                + "  /nowhere/libtkv.so (java.library.path)\n  the jar's /native/"), output);
        assertTrue(output.contains("suppressed java.lang.UnsatisfiedLinkError: " + broken.resolve(LIBRARY)), output);
        assertTrue(output.contains("suppressed java.io.IOException: " + occupied), output);
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
