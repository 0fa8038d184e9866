package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Path;
import java.util.Iterator;
import java.util.List;
import java.util.NoSuchElementException;
import java.util.Optional;
import java.util.stream.IntStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;
import velmar.qen.mgmt.nativesystem.AsRoot;
import velmar.qen.mgmt.nativesystem.Configuration;
import velmar.qen.mgmt.nativesystem.LoggedLines;
import velmar.qen.mgmt.nativesystem.TKVNative;
import velmar.qen.mgmt.nativesystem.TKVResult;

class RegistryTest extends OpenRegistry {
    @ParameterizedTest
    @ValueSource(strings = {"", "x", "a text", "größer 日本語 \ud83d\ude00", "a\u0000b", "100 %s {0}"})
    void getGivesWhatPutStored(String text) {
        registry.put(below("k"), text);
        assertEquals(text, registry.get(below("k")));
        assertEquals(Optional.of(text), registry.find(below("k")));
        assertEquals(text, registry.get(below("k"), "default"));
    }

    @Test
    void aKeyWithoutAValueReadsAsNothing() {
        assertEquals("", registry.get(top));
        assertEquals(List.of(), registry.getList(top));
    }

    @Test
    void anAbsentKeyIsNoText() {
        assertEquals(Optional.empty(), registry.find(below("absent")));
        assertEquals("default", registry.get(below("absent"), "default"));
        assertFalse(registry.exists(below("absent")));
    }

    @Test
    void putReplaces() {
        registry.put(below("k"), "1");
        registry.put(below("k"), "2");
        assertEquals("2", registry.get(below("k")));
    }

    static Stream<List<String>> lists() {
        return Stream.of(List.of(), List.of("one"), List.of("a", "bc"), List.of("größer", "日本語"),
                         List.of("\ud83d\ude00"), List.of("a\u0000b", " "),
                         IntStream.range(0, 30).mapToObj(i -> "text" + i).toList());
    }

    @ParameterizedTest
    @MethodSource("lists")
    void getListGivesWhatPutListStored(List<String> texts) {
        registry.putList(below("k"), texts);
        assertEquals(texts, registry.getList(below("k")));
        assertEquals(texts.isEmpty() ? "" : texts.get(0), registry.get(below("k")));
    }

    @Test
    void aTextIsAListOfOne() {
        registry.put(below("k"), "text");
        assertEquals(List.of("text"), registry.getList(below("k")));
        registry.put(below("k"), "");
        assertEquals(List.of(), registry.getList(below("k")));
    }

    @Test
    void aListThatEndsAtOnceIsNotTakenForAnEmptyOne() {
        TKVNative natives = new TKVNative();
        TKVResult result = new TKVResult();
        natives.setKeyValues(below("k"), new String[] {"", "lost"}, 3, "", null, null, result);
        assertTrue(result.getStatus());
        RegistryException failure = assertThrows(RegistryException.class, () -> registry.getList(below("k")));
        assertEquals("TKV-0014: the value of key '" + below("k")
                + "' cannot be read as a list in the character set of this process's locale", failure.text());
    }

    @ParameterizedTest
    @ValueSource(ints = {0, 1, -1, 9_999, 10_000, 123_456_789, Integer.MAX_VALUE, Integer.MIN_VALUE})
    void numbersOfAnySizeReadBack(int number) {
        registry.putInt(below("int"), number);
        assertEquals(number, registry.getInt(below("int")));
        assertEquals(number, registry.getLong(below("int")));
        assertEquals(String.valueOf(number), registry.get(below("int")));
        long large = number * 4_294_967_297L;
        registry.putLong(below("long"), large);
        assertEquals(large, registry.getLong(below("long")));
    }

    @Test
    void whatIsNoNumberIsRefused() {
        registry.put(below("k"), "twelve");
        NumberFormatException failure =
                assertThrows(NumberFormatException.class, () -> registry.getInt(below("k")));
        assertEquals("the text of key '" + below("k") + "' is not a number in range", failure.getMessage());
        registry.putLong(below("k"), Long.MAX_VALUE);
        assertThrows(NumberFormatException.class, () -> registry.getInt(below("k")));
        assertEquals(Long.MAX_VALUE, registry.getLong(below("k")));
    }

    @Test
    void listGivesOneLevelInByteOrder() {
        Stream.of("b", "a", "a.deeper", "é", "B").forEach(name -> registry.create(below(name)));
        assertEquals(List.of("B", "a", "b", "é"), registry.list(top));
        assertEquals(List.of(), registry.list(below("b")));
        assertTrue(registry.list("").contains(top));
    }

    @Test
    void walkGivesFullNamesEachBeforeItsOwnSubkeys() {
        Stream.of("b", "a", "a.y", "a.x", "a.x.deep", "b.c").forEach(name -> registry.create(below(name)));
        assertEquals(Stream.of("a", "a.x", "a.x.deep", "a.y", "b", "b.c").map(this::below).toList(),
                     registry.walk(top).toList());
        assertTrue(registry.walk("").anyMatch(below("a.x.deep")::equals));
    }

    @Test
    void walkReadsOnAsItIsConsumed() {
        Stream.of("a", "a.below", "b", "c", "c.below").forEach(name -> registry.create(below(name)));
        Iterator<String> names = registry.walk(top).iterator();
        assertEquals(below("a"), names.next());
        registry.deleteTree(below("a"));
        registry.create(below("b.new"));
        registry.deleteTree(below("c"));
        registry.create(below("d"));
        assertEquals(below("b"), names.next());
        assertEquals(below("b.new"), names.next());
        assertEquals(below("c"), names.next());
        assertFalse(names.hasNext());
        assertThrows(NoSuchElementException.class, names::next);
    }

    @Test
    @AsRoot
    void createMakesAKeyOfTheSession() {
        registry.create(below("k"));
        assertTrue(registry.exists(below("k")));
        assertEquals(Optional.of("root"), registry.owner(below("k")));
        assertEquals(Optional.of("root"), registry.group(below("k")));
    }

    static Stream<Security> securities() {
        return Stream.of(Security.sameAsSession(), Security.sameAsSession("any").withOwner("daemon"),
                         Security.ofType(4, "").withGroup("nogroup"), Security.ofType(6, ""), Security.open(),
                         Security.open().withOwner("nobody"), Security.ownedBy("nobody"),
                         Security.ownedBy("nobody").withGroup("nogroup"), Security.inheritFrom(""),
                         Security.inheritFrom("").withGroup("bin"));
    }

    private void assertOwners(Security security, String name) {
        String owner = security.owner() != null ? security.owner() : security.type() == 5 ? null : "root";
        String group = security.group() != null ? security.group()
                : security.type() == 5 || security.type() == 1 ? null : "root";
        assertEquals(Optional.ofNullable(owner), registry.owner(name), security::toString);
        assertEquals(Optional.ofNullable(group), registry.group(name), security::toString);
    }

    @ParameterizedTest
    @MethodSource("securities")
    @AsRoot
    void newKeysGetTheSecurityAskedFor(Security security) {
        registry.create(below("created"), security);
        registry.createWith(below("created-with"), "value", security);
        registry.put(below("put"), "value", security);
        registry.putList(below("put-list"), List.of("value"), security);
        for (String name : registry.list(top)) {
            assertOwners(security, below(name));
            assertEquals(name.equals("created") ? "" : "value", registry.get(below(name)));
        }
        assertEquals(4, registry.list(top).size());
        assertOwners(Security.sameAsSession(), "");
        assertOwners(Security.sameAsSession(), top);
    }

    @Test
    @AsRoot
    void anExistingKeyKeepsItsSecurity() {
        registry.put(below("k"), "1", Security.ownedBy("daemon"));
        registry.put(below("k"), "2", Security.ownedBy("nobody").withGroup("bin"));
        assertEquals(Optional.of("daemon"), registry.owner(below("k")));
        assertEquals("2", registry.get(below("k")));
    }

    @Test
    void deleteTellsWhetherThereWasAKey() {
        registry.create(below("k"));
        assertTrue(registry.delete(below("k")));
        assertFalse(registry.delete(below("k")));
        assertFalse(registry.deleteTree(below("k")));
    }

    @Test
    void deleteTreeTakesEverything() {
        Stream.of("a", "a.b", "a.b.c").forEach(name -> registry.create(below(name)));
        assertTrue(registry.deleteTree(below("a")));
        assertEquals(List.of(), registry.walk(top).toList());
    }

    @Test
    void moveTakesFullNames() {
        registry.create(below("to"));
        registry.put(below("from"), "v");
        registry.put(below("from.sub"), "w");
        registry.move(below("from"), below("to.moved"));
        assertEquals("w", registry.get(below("to.moved.sub")));
        assertFalse(registry.exists(below("from")));
        registry.move(below("to.moved"), top + "-moved");
        assertEquals("v", registry.get(top + "-moved"));
    }

    @Test
    void moveReplacingReplaces() {
        registry.put(below("a"), "a");
        registry.put(below("b"), "b");
        registry.put(below("b.sub"), "b");
        registry.moveReplacing(below("a"), below("b"));
        assertEquals("a", registry.get(below("b")));
        assertEquals(List.of("b"), registry.list(top));
        assertEquals(List.of(), registry.list(below("b")));
    }

    @Test
    void moveReplacingRefusesToReplaceAKeyAboveTheSource() {
        registry.put(below("a"), "above");
        registry.put(below("a.b"), "source");
        registry.put(below("a.b.sub"), "below the source");
        registry.put(below("a.other"), "beside the source");
        for (String target : List.of(below("a"), top)) {
            RegistryException refused =
                assertThrows(RegistryException.class, () -> registry.moveReplacing(below("a.b"), target));
            assertEquals(17, refused.code());
            assertTrue(refused.getMessage().contains("cannot replace key '" + target + "', which it lies below"),
                       refused.getMessage());
        }
        assertEquals("above", registry.get(below("a")));
        assertEquals("source", registry.get(below("a.b")));
        assertEquals("below the source", registry.get(below("a.b.sub")));
        assertEquals("beside the source", registry.get(below("a.other")));
    }

    @Test
    @AsRoot
    void copyTreeMakesANewTree() {
        registry.put(below("s"), "top", Security.ownedBy("daemon").withGroup("bin"));
        registry.putList(below("s.list"), List.of("a", "b"));
        registry.put(below("s.list.deep"), "deep", Security.open());
        registry.copyTree(below("s"), below("t"));
        assertEquals("top", registry.get(below("t")));
        assertEquals(List.of("a", "b"), registry.getList(below("t.list")));
        assertEquals("deep", registry.get(below("t.list.deep")));
        assertEquals(Optional.of("daemon"), registry.owner(below("t")));
        assertEquals(Optional.of("bin"), registry.group(below("t")));
        assertEquals(Optional.empty(), registry.owner(below("t.list.deep")));
    }

    @Test
    @AsRoot
    void copyTreeGivesTheCopyToWhomItIsTold() {
        registry.put(below("s"), "v", Security.ownedBy("daemon").withGroup("bin"));
        registry.copyTree(below("s"), below("user"), CopyOwner.SESSION_USER);
        registry.copyTree(below("s"), below("session"), CopyOwner.SESSION);
        assertEquals(Optional.of("root"), registry.owner(below("user")));
        assertEquals(Optional.of("bin"), registry.group(below("user")));
        assertEquals(Optional.of("root"), registry.owner(below("session")));
        assertEquals(Optional.of("root"), registry.group(below("session")));
    }

    @Test
    void copyTreeCopiesTheDeepestTreeInAThreadWithASmallStack() throws InterruptedException {
        String chain = "k.".repeat(62) + "k";
        registry.create("s");
        for (int level = 0; level < 63; level++) {
            registry.put("s." + chain.substring(0, 2 * level + 1), "value " + level);
        }
        boolean sanitized = System.getenv("LD_PRELOAD") != null;
        Throwable[] failure = new Throwable[1];
        Thread thread = new Thread(null, () -> registry.copyTree("s", "t"), "copy", sanitized ? 1 << 20 : 128 * 1024);
        thread.setUncaughtExceptionHandler((ended, thrown) -> failure[0] = thrown);
        thread.start();
        thread.join();
        assertEquals(null, failure[0]);
        assertEquals("value 62", registry.get("t." + chain));
        registry.deleteTree("s");
        registry.deleteTree("t");
    }

    @Test
    void copyTreeUndoesTheCopyAfterAnyThrowable() {
        registry.put(below("s"), "v");
        registry.put(below("s.child"), "v");
        AssertionError error = new AssertionError("thrown by a log handler");
        TKVResult.setTracing(true);
        try (LoggedLines logged = new LoggedLines(line -> {
            if (line.startsWith("prsrvtkv_copy_recurse: SUBKEY NAME")) {
                throw error;
            }
        })) {
            assertSame(error, assertThrows(AssertionError.class, () -> registry.copyTree(below("s"), below("t"))));
        } finally {
            TKVResult.setTracing(false);
        }
        assertFalse(registry.exists(below("t")));
    }

    @Test
    void locationsAreReadOnce() {
        registry.locations();
        TKVResult.setTracing(true);
        try (LoggedLines logged = new LoggedLines()) {
            assertEquals(Configuration.locations(), registry.locations().places());
            assertEquals(List.of(), logged.lines());
        } finally {
            TKVResult.setTracing(false);
        }
    }

    @Test
    void copyTreeTracesOnlyWhenTracingIsOn() {
        registry.create(below("s"));
        try (LoggedLines logged = new LoggedLines()) {
            registry.copyTree(below("s"), below("t"));
            assertEquals(List.of(), logged.lines());
            TKVResult.setTracing(true);
            registry.copyTree(below("s"), below("u"));
            assertTrue(logged.lines().stream().anyMatch(line -> line.startsWith("copyRecurse: ")));
        } finally {
            TKVResult.setTracing(false);
        }
    }

    @Test
    void aNodeAloneIsNoMember() {
        assertEquals(Configuration.onCluster(), registry.isClusterMember());
        try (Configuration member = Configuration.with("[cluster]\nconfigured = yes\n")) {
            assertTrue(registry.isClusterMember());
        }
    }

    @Test
    void locationsAreTheConfiguredOnes() {
        Locations locations = registry.locations();
        assertEquals(Configuration.onCluster(), locations.shared());
        assertEquals(Configuration.locations(), locations.places());
    }

    @Test
    void storageAtTellsWhatAPathCanHold(@TempDir Path directory) {
        assertEquals(new Storage(Storage.Kind.EMBEDDED, ""), registry.storageAt(directory.toString()));
        assertEquals(Storage.Kind.DISTRIBUTED, registry.storageAt("etcd://host:2379").kind());
        Storage none = registry.storageAt("/no/such/parent");
        assertEquals(Storage.Kind.UNUSABLE, none.kind());
        assertTrue(none.text().contains("/no/such"), none::text);
    }

    @Test
    void theBackupLocationIsTheConfiguredOne() {
        assertEquals(Optional.empty(), registry.backupLocation());
        registry.close();
        try (Configuration other = Configuration.with("backup_location = /var/backups/tkv\n")) {
            registry = Registry.open();
            assertEquals(Optional.of("/var/backups/tkv"), registry.backupLocation());
        }
    }

    @Test
    void thePatchLevelIsTheRecordedOne() {
        assertEquals(0, registry.patchLevel());
        registry.create("SYSTEM");
        registry.create("SYSTEM.version");
        registry.putInt("SYSTEM.version.patch", 12);
        assertEquals(12, registry.patchLevel());
        registry.deleteTree("SYSTEM");
    }

    @Test
    void serviceDependenciesAreRecorded() {
        registry.recordServiceDependencies(1);
        assertTrue(registry.exists("SYSTEM.ZUVED.dependencies"));
        registry.deleteTree("SYSTEM");
    }

    @Test
    void anotherSessionReadsWhatThisOneWrote() {
        registry.put(below("k"), "kept");
        registry.close();
        registry = Registry.open(7);
        assertEquals("kept", registry.get(below("k")));
    }
}
