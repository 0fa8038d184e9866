package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Path;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.List;
import java.util.Optional;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

class RevisionTest extends OpenRegistry {
    @Test
    void everyChangeHasALargerRevision() {
        registry.create(below("other"));
        List<Runnable> changes = List.of(
                () -> registry.create(below("k")), () -> registry.put(below("k"), 1),
                () -> registry.setSecurity(below("k"), KeySecurity.privateToUser()),
                () -> registry.put(below("k"), new Value.None()));
        for (Runnable change : changes) {
            long before = registry.revision();
            change.run();
            long after = registry.revision();
            assertTrue(after > before);
            assertEquals(after, registry.stat(below("k")).revision());
            assertTrue(registry.stat(below("other")).revision() < after);
        }
    }

    @Test
    void readingChangesNoRevision() {
        long before = registry.revision();
        registry.stat(top);
        registry.list(top);
        assertEquals(before, registry.revision());
    }

    @Test
    void theLastChangeHasATimeAndAnAuthor() {
        Instant before = Instant.now().truncatedTo(ChronoUnit.MICROS);
        registry.put(below("k"), "v");
        KeyInfo info = registry.stat(below("k"));
        assertFalse(info.changedAt().orElseThrow().isBefore(before));
        assertFalse(info.changedAt().orElseThrow().isAfter(Instant.now()));
        assertEquals(Optional.of(registry.user()), info.changedBy());
    }

    @Test
    void entriesHaveTheRevisionsOfTheirKeys() {
        registry.create(below("a"));
        registry.put(below("b"), 1);
        try (Stream<Entry> entries = registry.entries(top)) {
            assertEquals(Stream.of("a", "b").map(key -> registry.stat(below(key)).revision()).toList(),
                         entries.map(Entry::revision).toList());
        }
    }

    @Test
    void aChangeThatIsNoLongerRetainedHasARevisionOnly(@TempDir Path directory) throws IOException {
        try (Registry forgetful = HistoryOf.with("changes = 5", directory)) {
            forgetful.create("old");
            long revision = forgetful.revision();
            for (int i = 0; i < 50; i++) {
                forgetful.put("k", i);
            }
            KeyInfo old = forgetful.stat("old");
            assertEquals(revision, old.revision());
            assertEquals(Optional.empty(), old.changedAt());
            assertEquals(Optional.empty(), old.changedBy());
            assertTrue(forgetful.stat("k").changedBy().isPresent());
        }
    }

    @Test
    void theFirstStateIsEmpty() {
        try (Registry fresh = Registry.temporary()) {
            long revision = fresh.revision();
            fresh.create("k");
            assertTrue(fresh.revision() > revision);
            try (Snapshot empty = fresh.at(revision)) {
                assertEquals(List.of(), empty.list(""));
            }
        }
    }
}
