package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Duration;
import java.util.Arrays;
import java.util.EnumSet;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.stream.IntStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

class BatchTest extends OpenRegistry {
    private static final int THREADS = 8;
    private static final int INCREMENTS = 20;

    @Test
    void allChangesAreMadeTogether() {
        registry.put(below("gone"), "v");
        registry.ensure(below("tree.a.b"));
        registry.put(below("moved"), "moved");
        registry.put(below("replaced"), "former");
        long before = registry.revision();
        long revision = registry.batch()
                .put(below("text"), "text").put(below("list"), List.of("a", "b")).put(below("int"), 1)
                .put(below("long"), 2L).put(below("bytes"), new byte[] {3}).put(below("true"), true)
                .put(below("double"), 1.5).put(below("duration"), Duration.ofSeconds(5))
                .put(below("enum"), Thread.State.NEW).put(below("value"), new Value.Int32(4))
                .create(below("new")).createWith(below("new.sub"), new Value.Text("sub"))
                .delete(below("gone")).deleteTree(below("tree"))
                .move(below("moved"), below("new.moved"))
                .copy(below("new"), below("copy"), CopyOwner.SESSION)
                .copyReplacing(below("new"), below("replaced"), CopyOwner.SOURCE)
                .moveReplacing(below("replaced"), below("text"))
                .setSecurity(below("new.sub"), KeySecurity.privateToUser())
                .setSecurityTree(below("copy"), KeySecurity.privateToGroup())
                .commit();
        assertTrue(revision > before);
        assertEquals(revision, registry.revision());
        assertEquals(revision, registry.stat(below("copy.moved")).revision());
        assertEquals(List.of("a", "b"), registry.getList(below("list")));
        assertEquals(List.of(1, 4), List.of(registry.getInt(below("int")), registry.getInt(below("value"))));
        assertEquals(2L, registry.getLong(below("long")));
        assertEquals(new Value.Bytes(new byte[] {3}), registry.value(below("bytes")));
        assertTrue(registry.getBoolean(below("true")));
        assertEquals(1.5, registry.getDouble(below("double")));
        assertEquals(Duration.ofSeconds(5), registry.getDuration(below("duration")));
        assertEquals(Thread.State.NEW, registry.getEnum(below("enum"), Thread.State.class));
        assertEquals("moved", registry.getText(below("new.moved")));
        assertEquals(List.of("moved", "sub"), registry.list(below("text")));
        assertEquals("sub", registry.getText(below("copy.sub")));
        assertEquals(EnumSet.noneOf(Right.class), registry.security(below("new.sub")).groupRights());
        assertEquals(EnumSet.allOf(Right.class), registry.security(below("copy.sub")).groupRights());
        for (String gone : List.of("gone", "tree", "moved", "replaced")) {
            assertFalse(registry.exists(below(gone)), gone);
        }
        try (Snapshot former = registry.at(before)) {
            assertEquals(List.of("gone", "moved", "replaced", "tree"), former.list(top));
        }
    }

    @Test
    void aChangeThatCannotBeMadeUndoesThoseBefore() {
        registry.create(below("k"));
        registry.create(below("k.sub"));
        String absent = below("absent");
        Map<Batch, Class<? extends RegistryException>> failures = Map.of(
                registry.batch().put(below("new"), 1).delete(absent), KeyNotFoundException.class,
                registry.batch().put(below("new"), 1).deleteTree(absent), KeyNotFoundException.class,
                registry.batch().put(below("new"), 1).setSecurity(absent, KeySecurity.open()),
                KeyNotFoundException.class);
        failures.forEach((batch, kind) -> {
            RegistryException failure = assertThrows(RegistryException.class, batch::commit);
            assertSame(kind, failure.getClass());
            assertEquals(absent, failure.key());
        });
        RegistryException full = assertThrows(KeyNotEmptyException.class,
                                              () -> registry.batch().put(below("new"), 1).delete(below("k")).commit());
        assertEquals(below("k"), full.key());
        assertThrows(KeyExistsException.class, () -> registry.batch().put(below("new"), 1).create(below("k")).commit());
        assertThrows(InvalidNameException.class, () -> registry.batch().put(below("new"), 1).put("a..b", 1).commit());
        assertThrows(ValueTooLargeException.class,
                     () -> registry.batch().put(below("new"), 1).put(below("k"), "x".repeat(1 << 20)).commit());
        assertFalse(registry.exists(below("new")));
        assertTrue(registry.exists(below("k.sub")));
    }

    @Test
    void aBatchIsMadeIfItsConditionsHold() {
        registry.put(below("k"), "v");
        registry.create(below("none"));
        long revision = registry.stat(below("k")).revision();
        registry.batch().ifAbsent(below("new")).ifExists(below("k")).ifValue(below("k"), new Value.Text("v"))
                .ifValue(below("none"), new Value.None()).ifRevision(below("k"), revision).put(below("new"), 1).commit();
        assertEquals(1, registry.getInt(below("new")));
    }

    @Test
    void theFirstConditionThatDoesNotHoldIsNamed() {
        registry.put(below("k"), "v");
        long revision = registry.stat(below("k")).revision();
        String absent = below("absent");
        Map<Batch, String> conflicts = Map.of(
                registry.batch().ifAbsent(below("k")).ifExists(absent), "key '" + below("k") + "' exists",
                registry.batch().ifExists(below("k")).ifExists(absent), "key '" + absent + "' does not exist",
                registry.batch().ifValue(absent, new Value.None()), "key '" + absent + "' does not exist",
                registry.batch().ifValue(below("k"), new Value.Int32(1)),
                "key '" + below("k") + "' has another value than the condition names",
                registry.batch().ifValue(below("k"), new Value.None()),
                "key '" + below("k") + "' has another value than the condition names",
                registry.batch().ifRevision(below("k"), revision - 1),
                "key '" + below("k") + "' was changed in revision " + revision + ", not last in " + (revision - 1));
        conflicts.forEach((batch, message) -> {
            ConflictException conflict = assertThrows(ConflictException.class, batch.put(below("new"), 1)::commit);
            assertEquals(21, conflict.code());
            assertEquals("TKV-0021: " + message, conflict.text());
            assertTrue(message.contains("'" + conflict.key() + "'"), message);
        });
        assertFalse(registry.exists(below("new")));
    }

    @Test
    void conditionsAreAboutTheStateBefore() {
        registry.put(below("k"), 1);
        registry.batch().put(below("k"), 2).ifValue(below("k"), new Value.Int32(1)).commit();
        assertEquals(2, registry.getInt(below("k")));
    }

    @Test
    void aBatchTakesValuesAway() {
        registry.put(below("k"), "v", KeySecurity.privateToUser());
        KeySecurity before = registry.security(below("k"));
        registry.batch(KeySecurity.open()).put(below("k"), none()).put(below("new"), none()).commit();
        assertEquals(none(), registry.value(below("k")));
        assertEquals(before, registry.security(below("k")));
        assertEquals(none(), registry.value(below("new")));
    }

    @Test
    void aBatchWithoutChangesChecksItsConditions() {
        long revision = registry.revision();
        assertEquals(revision, registry.batch().ifExists(top).commit());
        assertEquals(revision, registry.batch().commit());
        assertThrows(ConflictException.class, () -> registry.batch().ifAbsent(top).commit());
        assertEquals(revision, registry.revision());
    }

    @Test
    void aBatchCanBeCommittedAgain() {
        Batch swap = registry.batch().move(below("a"), below("c")).move(below("b"), below("a"))
                .move(below("c"), below("b"));
        registry.put(below("a"), 1);
        registry.put(below("b"), 2);
        swap.commit();
        assertEquals(2, registry.getInt(below("a")));
        swap.commit();
        assertEquals(1, registry.getInt(below("a")));
    }

    @Test
    void newKeysHaveTheSecurityOfTheBatch() {
        registry.batch(KeySecurity.privateToUser()).put(below("k"), 1).create(below("l")).commit();
        for (String key : List.of("k", "l")) {
            assertEquals(EnumSet.noneOf(Right.class), registry.security(below(key)).otherRights());
        }
        registry.batch().put(below("m"), 1).commit();
        assertEquals(registry.security(top).otherRights(), registry.security(below("m")).otherRights());
    }

    @Test
    void aMissingParentIsRefusedUnlessItIsToBeCreated() {
        for (Batch batch : List.of(registry.batch().put(below("first"), 1).put(below("a.b.c"), 1),
                                   registry.batch().put(below("first"), 1).create(below("a.b.c")),
                                   registry.batch().put(below("first"), 1).createWith(below("a.b.c"), value(1)))) {
            KeyNotFoundException absent = assertThrows(KeyNotFoundException.class, batch::commit);
            assertEquals(below("a.b.c"), absent.key());
            assertTrue(absent.text().contains("'" + below("a") + "'"), absent::text);
            assertEquals(List.of(), registry.list(top));
            batch.createParents().commit();
            assertEquals(List.of("a", "first"), registry.list(top));
            assertTrue(registry.exists(below("a.b.c")));
            registry.deleteTree(below("a"));
            registry.delete(below("first"));
        }
        registry.batch().create(below("a")).create(below("a.b")).put(below("a.b.c"), 1).commit();
        assertEquals(1, registry.getInt(below("a.b.c")));
    }

    @Test
    void parentsAreCreatedWithoutValuesAndWithTheSecurityOfTheBatch() {
        registry.put(below("a"), "kept", KeySecurity.readableByAll());
        KeySecurity former = registry.security(below("a"));
        long revision = registry.batch(KeySecurity.privateToUser()).createParents()
                .put(below("a.b.c"), 1).createWith(below("a.b.d.e"), value(2)).put(below("a.b.c"), 3).commit();
        assertEquals("kept", registry.getText(below("a")));
        assertEquals(former, registry.security(below("a")));
        assertEquals(3, registry.getInt(below("a.b.c")));
        assertEquals(2, registry.getInt(below("a.b.d.e")));
        for (String name : List.of("a.b", "a.b.c", "a.b.d", "a.b.d.e")) {
            assertEquals(EnumSet.noneOf(Right.class), registry.security(below(name)).groupRights(), name);
            assertEquals(EnumSet.noneOf(Right.class), registry.security(below(name)).otherRights(), name);
            assertEquals(revision, registry.stat(below(name)).revision(), name);
        }
        for (String name : List.of("a.b", "a.b.d")) {
            assertEquals(none(), registry.value(below(name)), name);
        }
        registry.batch().createParents().put(below("inherits.k"), 1).commit();
        assertEquals(registry.security(top).otherRights(), registry.security(below("inherits")).otherRights());
    }

    @Test
    void parentsAreCreatedForWhatIsPutOrCreatedOnly() {
        registry.put(below("k"), 1);
        for (Batch batch : List.of(registry.batch().move(below("k"), below("a.k")),
                                   registry.batch().copy(below("k"), below("a.k"), CopyOwner.SOURCE),
                                   registry.batch().setSecurity(below("a.k"), KeySecurity.open()),
                                   registry.batch().delete(below("a.k")))) {
            assertThrows(KeyNotFoundException.class, batch.createParents()::commit);
        }
        Batch refused = registry.batch().createParents().ifExists(below("a")).put(below("a.b"), 1);
        assertEquals(below("a"), assertThrows(ConflictException.class, refused::commit).key());
        Batch undone = registry.batch().createParents().put(below("a.b"), 1).create(below("k"));
        assertEquals(below("k"), assertThrows(KeyExistsException.class, undone::commit).key());
        assertEquals(List.of("k"), registry.list(top));
    }

    private static Value value(int number) {
        return new Value.Int32(number);
    }

    private static Value none() {
        return new Value.None();
    }

    @Test
    void aRegistryForReadingOnlyRefusesABatch() {
        try (Registry reader = Registry.open(RegistryOptions.builder().readOnly(true).build())) {
            assertThrows(MissingRightException.class, () -> reader.batch().put(below("k"), 1).commit());
            assertThrows(MissingRightException.class, () -> reader.update(below("k"), value -> new Value.Int32(1)));
        }
        assertFalse(registry.exists(below("k")));
    }

    @Test
    void nullArgumentsAreRefused() {
        for (Executable call : List.<Executable>of(
                () -> registry.batch(null), () -> registry.batch().ifAbsent(null),
                () -> registry.batch().ifExists(null), () -> registry.batch().ifValue(null, new Value.None()),
                () -> registry.batch().ifValue("k", null), () -> registry.batch().ifRevision(null, 1),
                () -> registry.batch().put(null, 1), () -> registry.batch().put("k", (Value) null),
                () -> registry.batch().put("k", (String) null), () -> registry.batch().put("k", (byte[]) null),
                () -> registry.batch().put("k", Arrays.asList("a", null)),
                () -> registry.batch().put("k", (Duration) null), () -> registry.batch().put("k", (Enum<?>) null),
                () -> registry.batch().create(null), () -> registry.batch().createWith("k", null),
                () -> registry.batch().delete(null), () -> registry.batch().deleteTree(null),
                () -> registry.batch().move(null, "k"), () -> registry.batch().move("k", null),
                () -> registry.batch().copy("k", "l", null), () -> registry.batch().note(null),
                () -> registry.batch().setSecurity("k", null), () -> registry.batch().setSecurityTree("k", null),
                () -> RegistryOptions.builder().note(null), () -> registry.update(null, value -> value),
                () -> registry.update("k", null), () -> registry.update("k", value -> null))) {
            assertThrows(NullPointerException.class, call);
        }
        assertThrows(IllegalArgumentException.class, () -> registry.batch().put("k", List.of("a", "")));
        Batch batch = registry.batch().put(below("k"), 1);
        registry.close();
        assertThrows(RegistryClosedException.class, batch::commit);
    }

    // --- update ---

    private static Value increment(Value value) {
        return new Value.Int32(value instanceof Value.Int32 count ? count.number() + 1 : 1);
    }

    @Test
    void anUpdateAppliesAFunctionToTheValue() {
        assertEquals(new Value.Int32(1), registry.update(below("k"), BatchTest::increment));
        assertEquals(new Value.Int32(2), registry.update(below("k"), BatchTest::increment));
        assertEquals(2, registry.getInt(below("k")));
        registry.update(below("k"), value -> new Value.None());
        assertEquals(new Value.None(), registry.value(below("k")));
        assertThrows(KeyNotFoundException.class, () -> registry.update(below("absent.k"), BatchTest::increment));
    }

    @Test
    void anUpdateThatChangesNothingWritesNothing() {
        registry.put(below("k"), 1);
        long revision = registry.revision();
        assertEquals(new Value.Int32(1), registry.update(below("k"), value -> value));
        assertEquals(new Value.None(), registry.update(below("absent"), value -> value));
        assertFalse(registry.exists(below("absent")));
        assertEquals(revision, registry.revision());
    }

    @Test
    void anUpdateIsRepeatedWhenTheKeyHasChanged() {
        registry.put(below("k"), "0");
        int[] calls = {0};
        Value last = registry.update(below("k"), value -> {
            if (++calls[0] <= 3) {
                registry.put(below("k"), Integer.toString(calls[0]));
            }
            return new Value.Text(((Value.Text) value).text() + "+");
        });
        assertEquals(new Value.Text("3+"), last);
        assertEquals("3+", registry.getText(below("k")));
        assertEquals(4, calls[0]);
    }

    @Test
    void anUpdateGivesUpInTime() {
        RegistryOptions impatient = RegistryOptions.builder().timeout(Duration.ofMillis(100)).build();
        try (Registry other = Registry.open(impatient)) {
            int[] calls = {0};
            ConflictException conflict = assertThrows(ConflictException.class, () -> other.update(below("k"), value -> {
                registry.put(below("k"), ++calls[0]);
                return new Value.Text("never");
            }));
            assertEquals(below("k"), conflict.key());
            assertEquals(calls[0], registry.getInt(below("k")));
        }
    }

    @Test
    void anInterruptDoesNotEndAnUpdate() {
        registry.put(below("k"), 0);
        int[] calls = {0};
        Thread.currentThread().interrupt();
        try {
            registry.update(below("k"), value -> {
                if (++calls[0] <= 3) {
                    registry.put(below("k"), 10 * calls[0]);
                }
                return increment(value);
            });
        } finally {
            assertTrue(Thread.interrupted(), "the interrupt is kept");
        }
        assertEquals(31, registry.getInt(below("k")));
        assertEquals(4, calls[0]);
    }

    @Test
    void aConflictOfAnUpdateIsAboutItsKey() {
        // Long enough for each call on a cluster.
        RegistryOptions impatient = RegistryOptions.builder().timeout(Duration.ofSeconds(2)).build();
        try (Registry other = Registry.open(impatient)) {
            for (int round = 0; round < 2; round++) {
                ConflictException conflict =
                        assertThrows(ConflictException.class, () -> other.update(below("k"), value -> {
                            registry.update(below("k"), BatchTest::increment);
                            return new Value.Text("never");
                        }));
                assertEquals(21, conflict.code());
                assertEquals(below("k"), conflict.key());
                String message = "TKV-0021: key '" + below("k") + "' ";
                assertTrue(conflict.text().startsWith(message), conflict::text);
            }
        }
        assertTrue(registry.getInt(below("k")) >= 2);
    }

    @Test
    void anUpdateTriesForAsLongAsACallMayTake() {
        assertEquals(Duration.ofSeconds(30), RegistryOptions.builder().build().patience());
        assertEquals(Duration.ofMillis(7),
                     RegistryOptions.builder().timeout(Duration.ofMillis(7)).build().patience());
    }

    @Test
    void anExceptionOfTheFunctionChangesNothing() {
        registry.put(below("k"), 1);
        ConflictException own = new ConflictException(null, "own");
        assertSame(own, assertThrows(ConflictException.class, () -> registry.update(below("k"), value -> {
            throw own;
        })));
        assertNull(own.key());
        assertEquals(1, registry.getInt(below("k")));
    }

    @Test
    void noIncrementIsLost() throws InterruptedException, ExecutionException {
        ExecutorService pool = Executors.newFixedThreadPool(THREADS);
        try (Registry another = Registry.open()) {
            List<Callable<Void>> work = IntStream.range(0, THREADS).<Callable<Void>>mapToObj(thread -> () -> {
                Registry own = thread % 2 == 0 ? registry : another;
                for (int i = 0; i < INCREMENTS; i++) {
                    own.update(below("k"), BatchTest::increment);
                }
                return null;
            }).toList();
            for (Future<Void> each : pool.invokeAll(work)) {
                each.get();
            }
        } finally {
            pool.shutdown();
        }
        assertEquals(THREADS * INCREMENTS, registry.getInt(below("k")));
    }

    @Test
    void readersNeverSeeHalfABatch() throws InterruptedException, ExecutionException {
        registry.batch().put(below("a"), 0).put(below("b"), 0).commit();
        ExecutorService pool = Executors.newSingleThreadExecutor();
        Future<?> writing = pool.submit(() -> {
            for (int i = 1; i <= 50; i++) {
                registry.batch().put(below("a"), i).put(below("b"), i).commit();
            }
        });
        do {
            try (Stream<Entry> entries = registry.entries(top)) {
                assertEquals(1, entries.map(Entry::value).distinct().count());
            }
        } while (!writing.isDone());
        writing.get();
        pool.shutdown();
        assertEquals(Optional.of(50), registry.findValue(below("a")).map(value -> ((Value.Int32) value).number()));
    }
}
