package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.lang.ref.WeakReference;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.ArrayList;
import java.util.EnumSet;
import java.util.List;
import java.util.Optional;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;

class SnapshotTest extends OpenRegistry {
    private static List<String> names(Stream<Entry> entries) {
        try (entries) {
            return entries.map(Entry::name).toList();
        }
    }

    @Test
    void everyMethodReadsOneState() {
        registry.put(below("k"), "former", KeySecurity.privateToUser());
        registry.put(below("k.number"), 7);
        registry.create(below("gone"));
        try (Snapshot state = registry.snapshot()) {
            assertEquals(registry.revision(), state.revision());
            final KeyInfo info = registry.stat(below("k"));
            registry.put(below("k"), List.of("of", "today"));
            registry.setSecurity(below("k"), KeySecurity.open());
            registry.delete(below("gone"));
            registry.create(below("new"));
            registry.delete(below("k.number"));
            assertEquals("former", state.getText(below("k")));
            assertEquals(Optional.of(new Value.Text("former")), state.findValue(below("k")));
            assertEquals(7, state.getInt(below("k.number")));
            assertTrue(state.exists(below("gone")));
            assertFalse(state.exists(below("new")));
            assertEquals(Optional.empty(), state.findValue(below("new")));
            assertThrows(KeyNotFoundException.class, () -> state.getText(below("new")));
            assertEquals(List.of("gone", "k"), state.list(top));
            assertEquals(List.of(below("gone"), below("k"), below("k.number")), names(state.walk(top)));
            assertEquals(List.of(below("gone"), below("k")), names(state.entries(top)));
            assertEquals(info, state.stat(below("k")));
            assertEquals(EnumSet.noneOf(Right.class), state.security(below("k")).otherRights());
            assertEquals(EnumSet.allOf(Right.class), state.rights(below("k")));
            assertEquals(Optional.of(registry.user()), state.owner(below("k")));
        }
        assertEquals(List.of("of", "today"), registry.getList(below("k")));
    }

    @Test
    void eachStateCanBeReadAgain() {
        List<Long> revisions = new ArrayList<>();
        for (int i = 0; i < 20; i++) {
            registry.put(below("k"), i);
            revisions.add(registry.stat(below("k")).revision());
        }
        assertEquals(revisions.stream().sorted().distinct().toList(), revisions);
        for (int i = 0; i < 20; i++) {
            try (Snapshot state = registry.at(revisions.get(i))) {
                assertEquals(i, state.getInt(below("k")));
                assertEquals(revisions.get(i), state.revision());
                assertEquals(revisions.get(i), state.stat(below("k")).revision());
            }
        }
    }

    @Test
    void aKeyIsReadUnderItsFormerName() {
        registry.put(below("before"), "value");
        try (Snapshot state = registry.snapshot()) {
            registry.move(below("before"), below("after"));
            assertEquals("value", state.getText(below("before")));
            assertFalse(state.exists(below("after")));
        }
    }

    @Test
    void aStateThatDoesNotExistIsRefused() {
        assertThrows(IllegalArgumentException.class, () -> registry.at(-1));
        long next = registry.revision() + 1_000_000;
        RegistryException refused = assertThrows(RegistryException.class, () -> registry.at(next));
        assertEquals(8, refused.code());
        assertNull(refused.key());
        assertTrue(refused.text().contains(Long.toString(next)), refused::text);
    }

    @Test
    void aStateThatIsNoLongerRetainedSaysSo(@TempDir Path directory) throws IOException {
        try (Registry forgetful = HistoryOf.with("changes = 5", directory)) {
            forgetful.put("k", 0);
            long revision = forgetful.revision();
            try (Snapshot state = forgetful.snapshot()) {
                assertEquals(0, state.getInt("k"));
                for (int i = 1; i < 50; i++) {
                    forgetful.put("k", i);
                }
                for (Executable call : List.<Executable>of(() -> state.getInt("k"), () -> state.walk(""),
                                                           () -> forgetful.at(revision))) {
                    RegistryException lost = assertThrows(RegistryException.class, call);
                    assertEquals(8, lost.code());
                    assertTrue(lost.text().contains("not retained"), lost::text);
                }
            }
            assertEquals(49, forgetful.getInt("k"));
        }
    }

    private void assertClosed(Snapshot state, String message) {
        for (Executable call : List.<Executable>of(
                () -> state.findValue("k"), () -> state.exists("k"), () -> state.list(""), () -> state.walk(""),
                () -> state.entries(""), () -> state.stat(""), () -> state.rights(""), () -> state.getText("k"))) {
            RegistryClosedException closed = assertThrows(RegistryClosedException.class, call);
            assertEquals("TKV-0003: " + message, closed.text());
        }
    }

    @Test
    void aClosedSnapshotRejectsEveryCall() {
        Snapshot state = registry.snapshot();
        state.close();
        assertClosed(state, "the snapshot is closed");
        state.close();
        assertTrue(registry.exists(top));
    }

    @Test
    void aRegistryClosesItsSnapshots() {
        Snapshot state = registry.snapshot();
        Snapshot former = registry.at(registry.revision());
        registry.close();
        assertClosed(state, "the registry is closed");
        assertClosed(former, "the registry is closed");
        assertThrows(RegistryClosedException.class, registry::snapshot);
        assertThrows(RegistryClosedException.class, () -> registry.at(0));
        assertThrows(RegistryClosedException.class, registry::revision);
        state.close();
    }

    @Test
    void aStreamOutlivesItsSnapshot() {
        registry.create(below("k"));
        Stream<Entry> entries;
        try (Snapshot state = registry.snapshot()) {
            entries = state.walk(top);
        }
        assertEquals(List.of(below("k")), names(entries));
    }

    private static Snapshot ofAbandonedRegistry(Path directory) {
        return Registry.at(directory.resolve("registry")).snapshot();
    }

    @Test
    void aSnapshotKeepsItsRegistryOpen(@TempDir Path directory) {
        try (Snapshot state = ofAbandonedRegistry(directory)) {
            WeakReference<Object> collected = new WeakReference<>(new Object());
            Instant deadline = Instant.now().plus(Duration.ofSeconds(240));
            while (collected.get() != null && Instant.now().isBefore(deadline)) {
                System.gc();
            }
            assertTrue(state.exists(""));
        }
    }

    @Test
    void nullNamesAreRefused() {
        try (Snapshot state = registry.snapshot()) {
            for (Executable call : List.<Executable>of(
                    () -> state.findValue(null), () -> state.exists(null), () -> state.list(null),
                    () -> state.walk(null), () -> state.stat(null), () -> state.rights(null))) {
                assertThrows(NullPointerException.class, call);
            }
            assertThrows(IllegalArgumentException.class, () -> state.walk(top, -1));
        }
    }
}
