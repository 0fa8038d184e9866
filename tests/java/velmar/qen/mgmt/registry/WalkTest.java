package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.EnumSet;
import java.util.Iterator;
import java.util.List;
import java.util.NoSuchElementException;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;

class WalkTest extends OpenRegistry {
    private static final int MANY = 3_000;

    private List<String> names(int depth) {
        try (Stream<Entry> entries = registry.walk(top, depth)) {
            return entries.map(Entry::name).toList();
        }
    }

    private List<String> full(String... names) {
        return Stream.of(names).map(this::below).toList();
    }

    /** Creates more keys than a block holds. */
    private void createMany() {
        for (int i = 0; i < MANY; i++) {
            registry.put(below("k" + (10_000 + i)), "value " + i);
        }
    }

    @Test
    void keysComeBeforeTheirOwnSubkeysInByteOrder() {
        Stream.of("b", "a", "a.y", "a.x", "a.x.deep", "b.c").forEach(name -> registry.create(below(name)));
        assertEquals(full("a", "a.x", "a.x.deep", "a.y", "b", "b.c"), names(Integer.MAX_VALUE));
        assertEquals(full("a", "a.x", "a.y", "b", "b.c"), names(2));
        assertEquals(full("a", "b"), names(1));
        assertEquals(List.of(), names(0));
        assertThrows(IllegalArgumentException.class, () -> registry.walk(top, -1));
    }

    @Test
    void theRootIsWalkedAsWell() {
        try (Registry own = Registry.temporary()) {
            own.ensure("a.b");
            try (Stream<Entry> entries = own.walk("")) {
                assertEquals(List.of("a", "a.b"), entries.map(Entry::name).toList());
            }
        }
    }

    @Test
    void entriesCarryWhatIsKnown() {
        registry.put(below("k"), new Value.TextList(List.of("a", "b")), KeySecurity.privateToUser());
        registry.put(below("n"), 5);
        registry.create(below("none"));
        try (Stream<Entry> entries = registry.entries(top)) {
            List<Entry> all = entries.toList();
            assertEquals(List.of("k", "n", "none"), all.stream().map(Entry::level).toList());
            assertEquals(List.of(new Value.TextList(List.of("a", "b")), new Value.Int32(5), new Value.None()),
                         all.stream().map(Entry::value).toList());
            assertEquals(registry.security(below("k")), all.get(0).security());
            assertEquals(EnumSet.allOf(Right.class), all.get(0).rights());
            assertEquals(new Value.Int32(5), all.get(1).findValue().orElseThrow());
            assertEquals(below("k"), all.get(0).toString());
        }
    }

    @Test
    void aStreamShowsOneState() {
        createMany();
        try (Stream<Entry> entries = registry.walk(top)) {
            Iterator<Entry> iterator = entries.iterator();
            assertEquals(below("k10000"), iterator.next().name());
            registry.deleteTree(below("k12999"));
            registry.put(below("k12998"), "new");
            registry.create(below("z"));
            for (int i = 1; i < MANY; i++) {
                assertEquals(new Value.Text("value " + i), iterator.next().value());
            }
            assertFalse(iterator.hasNext());
            assertThrows(NoSuchElementException.class, iterator::next);
        }
        assertEquals(MANY, registry.list(top).size());
    }

    @Test
    void largeValuesComeInEntriesToo() {
        String large = "x".repeat(1_000_000);
        for (int i = 0; i < 5; i++) {
            registry.put(below("k" + i), large + i);
        }
        try (Stream<Entry> entries = registry.walk(top)) {
            assertEquals(List.of(0, 1, 2, 3, 4), entries.map(entry -> ((Value.Text) entry.value()).text())
                    .map(text -> text.charAt(text.length() - 1) - '0').toList());
        }
    }

    @Test
    void aClosedStreamEnds() {
        createMany();
        Stream<Entry> entries = registry.walk(top);
        Iterator<Entry> iterator = entries.iterator();
        iterator.next();
        entries.close();
        entries.close();
        RegistryClosedException closed = assertThrows(RegistryClosedException.class,
                                                      () -> iterator.forEachRemaining(Entry::name));
        assertTrue(closed.text().contains("the stream is closed"), closed::text);
    }

    @Test
    void aStreamClosedByAnotherThreadEnds() throws InterruptedException {
        createMany();
        Stream<Entry> entries = registry.walk(top);
        assertFalse(entries.isParallel());
        Iterator<Entry> iterator = entries.iterator();
        iterator.next();
        Thread closing = new Thread(entries::close);
        closing.start();
        closing.join();
        assertThrows(RegistryClosedException.class, () -> iterator.forEachRemaining(Entry::name));
        assertEquals(MANY, registry.list(top).size());
    }

    @Test
    void aStreamThatIsReadToItsEndNeedsNoClosing() {
        createMany();
        assertEquals(MANY, registry.walk(top).map(Entry::name).distinct().count());
        Stream<Entry> closed = registry.entries(top);
        closed.close();
        assertThrows(IllegalStateException.class, closed::count);
    }

    @Test
    void anAbsentKeyIsNotWalkedAtAnyDepth() {
        for (int depth : new int[] {0, 1, Integer.MAX_VALUE}) {
            assertThrows(KeyNotFoundException.class, () -> registry.walk(below("absent"), depth));
        }
        assertThrows(KeyNotFoundException.class, () -> registry.entries(below("absent")));
        assertEquals(0, registry.entries(top).count());
    }

    @Test
    void aStreamOutlivesItsRegistry() {
        createMany();
        try (Stream<Entry> entries = registry.walk(top)) {
            registry.close();
            assertEquals(MANY, entries.mapToInt(entry -> entry.level().length() / 6).sum());
        }
    }
}
