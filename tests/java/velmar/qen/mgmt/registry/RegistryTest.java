package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.file.Path;
import java.util.EnumSet;
import java.util.List;
import java.util.Optional;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;
import velmar.qen.mgmt.nativesystem.AsRoot;
import velmar.qen.mgmt.nativesystem.Configuration;

class RegistryTest extends OpenRegistry {
    /** More keys than a change is logged with one by one, and than a block of a walk holds. */
    private static final int MANY = 3_000;

    @Test
    void anAbsentKeyDoesNotExist() {
        assertFalse(registry.exists(below("absent")));
        assertTrue(registry.exists(top));
        assertTrue(registry.exists(""));
    }

    @Test
    void putReplaces() {
        registry.put(below("k"), "1");
        registry.put(below("k"), 2);
        assertEquals(2, registry.getInt(below("k")));
    }

    @Test
    void ensureCreatesWhatIsMissing() {
        registry.put(below("a"), "kept");
        registry.ensure(below("a.b.c"));
        registry.ensure(below("a.b.c"));
        registry.ensure(below("a"));
        registry.ensure("");
        assertEquals("kept", registry.getText(below("a")));
        assertEquals(List.of(below("a"), below("a.b"), below("a.b.c")), names(registry.walk(top)));
    }

    @Test
    void createWithTakesAnyValue() {
        registry.createWith(below("text"), "v", KeySecurity.privateToUser());
        registry.createWith(below("list"), new Value.TextList(List.of("a")), KeySecurity.privateToUser());
        assertEquals("v", registry.getText(below("text")));
        assertEquals(List.of("a"), registry.getList(below("list")));
        assertEquals(0, registry.security(below("list")).otherRights().size());
    }

    @Test
    void listGivesOneLevelInByteOrder() {
        Stream.of("b", "a", "a.deeper", "é", "B").forEach(name -> registry.create(below(name)));
        assertEquals(List.of("B", "a", "b", "é"), registry.list(top));
        assertEquals(List.of(), registry.list(below("b")));
        assertTrue(registry.list("").contains(top));
    }

    @Test
    void statTellsWhatIsKnown() {
        registry.create(below("k"), KeySecurity.privateToUser());
        registry.put(below("k"), List.of("a", "bc"));
        KeyInfo leaf = registry.stat(below("k"));
        registry.create(below("k.sub"));
        assertEquals(new KeyInfo(below("k"), ValueType.LIST, 6, false, EnumSet.allOf(Right.class),
                                 registry.security(below("k")), leaf.revision(), leaf.changedAt(), leaf.changedBy()),
                     leaf);
        assertEquals(below("k"), leaf.name());
        assertEquals(EnumSet.allOf(Right.class), leaf.rights());
        assertThrows(UnsupportedOperationException.class, leaf.rights()::clear);
        assertEquals(registry.security(below("k")), leaf.security());
        assertTrue(registry.stat(below("k")).hasSubkeys());
    }

    @Test
    @AsRoot
    void createMakesAKeyOfTheSession() {
        registry.create(below("k"));
        assertTrue(registry.exists(below("k")));
        assertEquals(Optional.of("root"), registry.owner(below("k")));
        assertEquals(Optional.of("root"), registry.group(below("k")));
    }

    static Stream<KeySecurity> securities() {
        return Stream.of(KeySecurity.readableByAll(), KeySecurity.readableByAll().withOwner("daemon"),
                         KeySecurity.privateToGroup().withGroup("nogroup"), KeySecurity.privateToUser(),
                         KeySecurity.open(), KeySecurity.open().withOwner("nobody"),
                         KeySecurity.inherited().withOwner("nobody"), KeySecurity.inherited(),
                         KeySecurity.inherited().withGroup("bin"));
    }

    @ParameterizedTest
    @MethodSource("securities")
    @AsRoot
    void newKeysGetTheSecurityAskedForAtOnce(KeySecurity security) {
        registry.create(below("created"), security);
        registry.createWith(below("created-with"), "value", security);
        registry.put(below("put"), "value", security);
        registry.put(below("put-list"), new Value.TextList(List.of("value")), security);
        registry.ensure(below("ensured"), security);
        registry.put(below("nothing"), new Value.None(), security);
        KeySecurity expected = registry.security(below("created"));
        try (Stream<Entry> entries = registry.entries(top)) {
            entries.forEach(entry -> assertEquals(expected, entry.security(), entry::name));
        }
        assertEquals(6, registry.list(top).size());
        for (KeySecurity above : List.of(registry.security(""), registry.security(top))) {
            assertEquals(Optional.of("root"), above.owner());
            assertEquals(Optional.of("root"), above.group());
        }
    }

    @Test
    @AsRoot
    void anExistingKeyKeepsItsSecurity() {
        registry.put(below("k"), "1", KeySecurity.privateToUser().withOwner("daemon"));
        KeySecurity before = registry.security(below("k"));
        registry.put(below("k"), "2", KeySecurity.open().withOwner("nobody").withGroup("bin"));
        registry.ensure(below("k"), KeySecurity.open());
        registry.put(below("k"), new Value.None(), KeySecurity.open());
        assertEquals(before, registry.security(below("k")));
        assertEquals(Optional.of("daemon"), registry.owner(below("k")));
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
        assertEquals(List.of(), registry.list(top));
    }

    @Test
    void moveTakesFullNames() {
        registry.create(below("to"));
        registry.put(below("from"), "v");
        registry.put(below("from.sub"), "w");
        registry.move(below("from"), below("to.moved"));
        assertEquals("w", registry.getText(below("to.moved.sub")));
        assertFalse(registry.exists(below("from")));
        registry.move(below("to.moved"), top + "-moved");
        assertEquals("v", registry.getText(top + "-moved"));
    }

    @Test
    void moveReplacingReplaces() {
        registry.put(below("a"), "a");
        registry.put(below("b"), "b");
        registry.put(below("b.sub"), "b");
        registry.moveReplacing(below("a"), below("b"));
        assertEquals("a", registry.getText(below("b")));
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
        assertEquals("above", registry.getText(below("a")));
        assertEquals("source", registry.getText(below("a.b")));
        assertEquals("below the source", registry.getText(below("a.b.sub")));
        assertEquals("beside the source", registry.getText(below("a.other")));
    }

    @Test
    @AsRoot
    void copyMakesANewTree() {
        registry.put(below("s"), "top", KeySecurity.privateToUser().withOwner("daemon").withGroup("bin"));
        registry.put(below("s.list"), List.of("a", "b"));
        registry.put(below("s.list.deep"), new Value.Text("deep"), KeySecurity.open());
        registry.put(below("s.large"), "x".repeat(1_000_000));
        registry.copy(below("s"), below("t"));
        assertEquals("top", registry.getText(below("t")));
        assertEquals(List.of("a", "b"), registry.getList(below("t.list")));
        assertEquals("deep", registry.getText(below("t.list.deep")));
        assertEquals(1_000_000, registry.getText(below("t.large")).length());
        for (String name : List.of("", ".list", ".list.deep", ".large")) {
            assertEquals(registry.security(below("s" + name)), registry.security(below("t" + name)));
        }
    }

    @Test
    @AsRoot
    void copyGivesTheCopyToWhomItIsTold() {
        registry.put(below("s"), "v", KeySecurity.open().withOwner("daemon").withGroup("bin"));
        registry.put(below("s.sub"), "v", KeySecurity.open().withOwner("daemon").withGroup("bin"));
        registry.copy(below("s"), below("t"), CopyOwner.SESSION);
        for (String name : List.of("t", "t.sub")) {
            assertEquals(Optional.of("root"), registry.owner(below(name)));
            assertEquals(Optional.of("root"), registry.group(below(name)));
        }
        registry.copy(below("s"), below("u"), CopyOwner.SOURCE);
        assertEquals(Optional.of("daemon"), registry.owner(below("u.sub")));
    }

    @Test
    void copyReplacingReplaces() {
        registry.put(below("a"), "a");
        registry.put(below("b"), "b");
        registry.put(below("b.sub"), "b");
        registry.copyReplacing(below("a"), below("b"), CopyOwner.SOURCE);
        assertEquals("a", registry.getText(below("b")));
        assertEquals(List.of(below("a"), below("b")), names(registry.walk(top)));
    }

    @Test
    void copyTakesTheDeepestTree() {
        String chain = "k.".repeat(62) + "k";
        registry.ensure("s." + chain);
        registry.put("s." + chain, "deep");
        registry.copy("s", "t");
        assertEquals("deep", registry.getText("t." + chain));
        registry.deleteTree("s");
        registry.deleteTree("t");
    }

    /** Returns how many keys of a tree of many are below a key, after checking a few of them. */
    private long countIn(String name) {
        try (Stream<Entry> entries = registry.walk(below(name))) {
            long count = entries.count();
            for (int i = 0; i < MANY && count > 0; i += 999) {
                assertEquals(i, registry.getInt(below(name + ".g" + i % 7 + ".k" + i)));
            }
            return count;
        }
    }

    @Test
    void treesOfAnySizeAreMovedCopiedChangedAndDeletedAtOnce() {
        Batch fill = registry.batch().createParents();
        for (int i = 0; i < MANY; i++) {
            fill.put(below("s.g" + i % 7 + ".k" + i), i);
        }
        fill.commit();
        long before = registry.revision();
        registry.copy(below("s"), below("copy"));
        try (Snapshot copied = registry.snapshot()) {
            registry.move(below("s"), below("moved"));
            assertEquals(MANY + 7, countIn("copy"));
            assertEquals(MANY + 7, countIn("moved"));
            assertFalse(registry.exists(below("s")));
            assertEquals(List.of("copy", "s"), copied.list(top));
            registry.copyReplacing(below("moved"), below("copy"), CopyOwner.SESSION);
            assertEquals(MANY + 7, countIn("copy"));
            registry.setSecurityTree(below("copy"), KeySecurity.privateToUser());
            assertEquals(EnumSet.noneOf(Right.class), registry.security(below("copy.g6.k6")).otherRights());
            registry.moveReplacing(below("copy"), below("moved"));
            assertEquals(MANY + 7, countIn("moved"));
            assertEquals(EnumSet.noneOf(Right.class), registry.security(below("moved.g6.k6")).otherRights());
            assertTrue(registry.deleteTree(below("moved")));
        }
        assertEquals(List.of(), registry.list(top));
        try (Snapshot former = registry.at(before)) {
            assertEquals(MANY - 1, former.getInt(below("s.g" + (MANY - 1) % 7 + ".k" + (MANY - 1))));
        }
    }

    @Test
    void aNodeAloneIsNoMember() {
        assertEquals(Configuration.onCluster(), registry.isClusterMember());
        try (Configuration member = Configuration.with("[cluster]\nconfigured = yes\n");
             Registry ofMember = Registry.open()) {
            assertTrue(ofMember.isClusterMember());
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
        registry.ensure("SYSTEM.version.patch");
        assertEquals(0, registry.patchLevel());
        registry.put("SYSTEM.version.patch", 12);
        assertEquals(12, registry.patchLevel());
        registry.put("SYSTEM.version.patch", " 13\n");
        assertEquals(13, registry.patchLevel());
        registry.deleteTree("SYSTEM");
    }

    @Test
    void serviceDependenciesAreRecorded() {
        registry.recordServiceDependencies(1);
        assertEquals(List.of("membership", "storage"), registry.getList("SYSTEM.ZUVED.dependencies"));
        assertEquals("1", registry.getText("SYSTEM.ZUVED.mode"));
        registry.deleteTree("SYSTEM");
    }

    @Test
    void anotherSessionReadsWhatThisOneWrote() {
        registry.put(below("k"), "kept");
        registry.close();
        registry = Registry.open();
        assertEquals("kept", registry.getText(below("k")));
    }

    private static List<String> names(Stream<Entry> entries) {
        try (entries) {
            return entries.map(Entry::name).toList();
        }
    }
}
