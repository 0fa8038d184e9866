package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.time.Duration;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import velmar.qen.mgmt.nativesystem.AsRoot;
import velmar.qen.mgmt.nativesystem.ChildJvm;

class OpeningTest {
    @TempDir
    private Path directory;

    @Test
    void anyNumberOfRegistriesCanBeOpen() {
        try (Registry configured = Registry.open(); Registry one = Registry.at(directory.resolve("one"));
             Registry two = Registry.at(directory.resolve("two"))) {
            one.put("k", 1);
            two.put("k", 2);
            assertEquals(1, one.getInt("k"));
            assertEquals(2, two.getInt("k"));
            assertFalse(configured.exists("k"));
        }
    }

    @Test
    void eachOpeningIsClosedOnItsOwn() {
        Registry first = Registry.at(directory);
        Registry second = Registry.at(directory);
        first.put("k", "v");
        first.close();
        first.close();
        assertThrows(RegistryClosedException.class, () -> first.getText("k"));
        assertEquals("v", second.getText("k"));
        second.close();
        try (Registry third = Registry.at(directory)) {
            assertEquals("v", third.getText("k"));
        }
    }

    /** Those that are opened later may be held where a closed one was. */
    @Test
    void aClosedRegistryStaysClosedWhateverIsOpenedLater() {
        List<Path> places = List.of(directory.resolve("0"), directory.resolve("1"));
        List<Registry> closed = new ArrayList<>();
        List<Registry> open = new ArrayList<>();
        for (int i = 0; i < 200; i++) {
            Registry registry = Registry.at(places.get(i % 2));
            registry.put("k", i % 2);
            open.add(registry);
            if (i % 3 != 0) {
                closed.add(open.remove(i % open.size()));
                closed.get(closed.size() - 1).close();
            }
        }
        for (Registry registry : closed) {
            assertThrows(RegistryClosedException.class, () -> registry.exists("k"));
            assertThrows(RegistryClosedException.class, () -> registry.getInt("k"));
            assertThrows(RegistryClosedException.class, () -> registry.put("k", 7));
            registry.close();
        }
        assertEquals(67, open.size());
        for (Registry registry : open) {
            assertTrue(registry.locations().places().get(0).endsWith("/" + registry.getInt("k")));
            registry.close();
        }
    }

    @Test
    void atTakesAnyDirectoryName() {
        for (String name : List.of("with blank", "a,b", "etcd:--x", "größer")) {
            try (Registry registry = Registry.at(directory.resolve(name))) {
                registry.put("k", name);
                assertEquals(List.of(directory.resolve(name).toString()), registry.locations().places());
                assertFalse(registry.locations().shared());
                assertFalse(registry.isClusterMember());
            }
        }
        Path relative = Path.of("").toAbsolutePath().relativize(directory.toAbsolutePath()).resolve("relative");
        Registry.at(relative).close();
        assertTrue(Files.isDirectory(directory.resolve("relative")));
    }

    @Test
    void atCreatesADirectoryForThisUserAlone() throws IOException {
        Registry.at(directory.resolve("registry")).close();
        assertEquals("rwx------", PosixFilePermissions.toString(
                Files.getPosixFilePermissions(directory.resolve("registry"))));
        assertThrows(RegistryUnusableException.class, () -> Registry.at(directory.resolve("no/such/parent")));
    }

    @Test
    void openTakesAConfigurationFile() throws IOException {
        Path file = directory.resolve("tkv.conf");
        Path place = directory.resolve("registry");
        Files.writeString(file, "[registry]\nlocation = " + place + "\nbackup_location = /var/backups/here\n"
                + "[cluster]\nconfigured = yes\n");
        try (Registry registry = Registry.open(file)) {
            assertEquals(List.of(place.toString()), registry.locations().places());
            assertEquals("/var/backups/here", registry.backupLocation().orElseThrow());
            assertTrue(registry.isClusterMember());
        }
        Files.writeString(file, "[registry]\nwrong\n");
        RegistryException wrong = assertThrows(RegistryException.class, () -> Registry.open(file));
        assertEquals(41, wrong.code());
        assertTrue(wrong.text().contains(file + ":2"), wrong::text);
        Files.delete(file);
        assertThrows(RegistryException.class, () -> Registry.open(file));
    }

    @Test
    void aTemporaryRegistryIsRemovedWhenItIsClosed() {
        Registry registry = Registry.temporary();
        Path place = Path.of(registry.locations().places().get(0));
        registry.put("k", "v");
        try (Registry other = Registry.temporary()) {
            assertFalse(other.exists("k"));
        }
        assertTrue(Files.exists(place));
        registry.close();
        assertFalse(Files.exists(place));
    }

    /** Runs where there is no directory for temporary files. */
    static final class Homeless {
        private Homeless() {}

        public static void main(String[] arguments) {
            try {
                Registry.temporary().close();
            } catch (UncheckedIOException e) {
                System.out.println("none");
            }
        }
    }

    @Test
    void aTemporaryRegistryNeedsADirectoryForTemporaryFiles() throws IOException, InterruptedException {
        ChildJvm.Outcome outcome = ChildJvm.run(List.of("-Djava.io.tmpdir=" + directory.resolve("no/such")), Map.of(),
                                                Homeless.class);
        assertEquals("none\n", outcome.output());
    }

    @Test
    void aReadOnlyRegistryRefusesChanges() {
        RegistryOptions readOnly = RegistryOptions.builder().readOnly(true).build();
        assertThrows(RegistryUnusableException.class, () -> Registry.at(directory.resolve("none"), readOnly));
        assertFalse(Files.exists(directory.resolve("none")));
        try (Registry writer = Registry.at(directory); Registry reader = Registry.at(directory, readOnly)) {
            writer.put("k", "v");
            assertEquals("v", reader.getText("k"));
            for (Runnable change : Stream.<Runnable>of(
                    () -> reader.put("k", "new"), () -> reader.create("l"), () -> reader.ensure("l"),
                    () -> reader.put("k", new Value.None()), () -> reader.delete("k"), () -> reader.deleteTree("k"),
                    () -> reader.move("k", "l"), () -> reader.copy("k", "l"),
                    () -> reader.setSecurity("k", KeySecurity.open()),
                    () -> reader.recordServiceDependencies(0)).toList()) {
                assertThrows(MissingRightException.class, change::run);
            }
            assertEquals(List.of("k"), writer.list(""));
        }
    }

    @Test
    void aRegistryThatMustExistIsNotCreated() {
        RegistryOptions mustExist = RegistryOptions.builder().mustExist(true).build();
        assertThrows(RegistryUnusableException.class, () -> Registry.at(directory.resolve("none"), mustExist));
        assertFalse(Files.exists(directory.resolve("none")));
        Registry.at(directory.resolve("one")).close();
        Registry.at(directory.resolve("one"), mustExist).close();
    }

    @Test
    void theTimeoutLimitsACall() throws IOException {
        Path file = directory.resolve("tkv.conf");
        Files.writeString(file, "[registry]\nlocation = etcd://127.0.0.1:1\n[etcd]\ntimeout_ms = 600000\n");
        RegistryOptions impatient = RegistryOptions.builder().timeout(Duration.ofMillis(200)).build();
        assertThrows(RegistryUnavailableException.class, () -> Registry.open(file, impatient));
    }

    /** Writes large values until it is killed. */
    static final class Writer {
        private Writer() {}

        public static void main(String[] arguments) {
            Registry registry = Registry.at(Path.of(arguments[0]));
            List<String> large = Collections.nCopies(1_000, "x".repeat(1_000));
            for (int i = 0;; i++) {
                registry.put("large" + i % 10, large);
            }
        }
    }

    @Test
    void aCallThatWaitsForAWriterTooLongIsTurnedAway() throws IOException, InterruptedException {
        RegistryOptions impatient = RegistryOptions.builder().timeout(Duration.ofMillis(100)).build();
        Process writer = ChildJvm.start(List.of(), Map.of(), Writer.class, directory.toString());
        try (Registry registry = Registry.at(directory, impatient)) {
            RegistryBusyException busy = null;
            // The writer is stopped sooner or later while it writes.
            for (Instant end = Instant.now().plusSeconds(120); busy == null && Instant.now().isBefore(end);) {
                if (registry.exists("large9")) {
                    signal(writer, "STOP");
                    busy = refusal(registry);
                    signal(writer, "CONT");
                }
            }
            assertNotNull(busy);
            assertEquals(19, busy.code());
            assertTrue(busy.text().contains(String.valueOf(writer.pid())), busy::text);
            assertFalse(registry.exists("refused"));
        } finally {
            writer.destroyForcibly().waitFor();
        }
    }

    private static void signal(Process process, String name) throws IOException, InterruptedException {
        new ProcessBuilder("kill", "-" + name, String.valueOf(process.pid())).inheritIO().start().waitFor();
    }

    private static RegistryBusyException refusal(Registry registry) {
        try {
            registry.put("refused", "v");
            registry.delete("refused");
            return null;
        } catch (RegistryBusyException busy) {
            return busy;
        }
    }

    @Test
    void locationsAreValues() {
        List<String> places = new ArrayList<>(List.of("/a"));
        Locations locations = new Locations(places, true);
        places.clear();
        assertEquals(List.of("/a"), locations.places());
        assertTrue(locations.shared());
        assertEquals(new Locations(List.of("/a"), true), locations);
    }

    @Test
    void aFileOfAnotherProgramMakesADirectoryUnusable() throws IOException {
        Files.writeString(directory.resolve("data.mdb"), "not a database".repeat(1000));
        RegistryUnusableException failure = assertThrows(RegistryUnusableException.class, () -> Registry.at(directory));
        assertEquals(18, failure.code());
        assertTrue(failure.text().contains("is not the data file of a registry"), failure::text);
    }

    /** Waits for a configured time at most, or for that of the options if it is shorter. */
    @Test
    void anotherProcessThatIsWritingMakesTheRegistryBusy() throws IOException, InterruptedException {
        Path place = directory.resolve("registry");
        Path file = directory.resolve("tkv.conf");
        Files.writeString(file, "[registry]\nlocation = " + place + "\ntimeout_ms = 150\n");
        RegistryOptions shorter = RegistryOptions.builder().timeout(Duration.ofMillis(100)).build();
        try (Registry configured = Registry.open(file); Registry impatient = Registry.open(file, shorter);
             Registry direct = Registry.at(place, shorter)) {
            configured.put("k", "former");
            try (ForeignWriter writer = new ForeignWriter(place)) {
                assertBusy(configured, writer, place, 150);
                assertBusy(impatient, writer, place, 100);
                assertBusy(direct, writer, place, 100);
            }
            for (Registry registry : List.of(configured, impatient, direct)) {
                registry.put("k", "new");
            }
        }
    }

    private static void assertBusy(Registry registry, ForeignWriter writer, Path place, int millis) {
        RegistryBusyException busy = assertThrows(RegistryBusyException.class, () -> registry.put("k", "new"));
        assertEquals(19, busy.code());
        assertEquals("k", busy.key());
        assertTrue(busy.text().endsWith("process " + writer.pid() + " (holder) is writing to the registry in '" + place
                                        + "'; gave up after " + millis + " ms"), busy::text);
        assertEquals("former", registry.getText("k"));
    }

    @Test
    void impossibleTimeoutsAreRefused() {
        Duration longest = Duration.ofMillis(Integer.MAX_VALUE);
        for (Duration possible : List.of(Duration.ofMillis(1), Duration.ofDays(24), longest)) {
            assertEquals(possible, RegistryOptions.builder().timeout(possible).build().patience());
        }
        for (Duration none : List.of(Duration.ZERO, Duration.ofNanos(999_999), Duration.ofMillis(-1),
                                     longest.plusNanos(1), Duration.ofDays(25), Duration.ofSeconds(Long.MAX_VALUE))) {
            assertThrows(IllegalArgumentException.class, () -> RegistryOptions.builder().timeout(none));
        }
    }

    @Test
    @AsRoot
    void anUnusableDirectoryIsNamed() throws IOException {
        Path file = Files.createFile(directory.resolve("file"));
        RegistryException failure = assertThrows(RegistryException.class, () -> Registry.at(file));
        assertTrue(failure.text().contains(file.toString()), failure::text);
    }
}
