package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static velmar.qen.mgmt.nativesystem.Reports.assertCode;
import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.assertRefused;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.io.IOException;
import java.util.stream.IntStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

class KeysTest extends OpenSession {
    private static final String LONGEST_LEVEL = "l".repeat(264);

    @Test
    void keyExistsTellsPresentFromAbsent() {
        create(top + "present");
        assertTrue(exists(top + "present"));
        assertFalse(exists(top + "absent"));
        assertFalse(exists(top + "present.below"));
        assertTrue(exists(""));
    }

    @Test
    void keyExistsRefusesAnInvalidName() {
        assertRefused(5, "empty", r -> assertFalse(tkv.keyExists("a..b", r)));
    }

    @ParameterizedTest
    @ValueSource(strings = {"a..b", ".a", "a.", "."})
    void noMethodTakesANameWithAnEmptyLevel(String name) {
        assertRefused(5, "", r -> tkv.openKey(name, r));
        assertRefused(5, "", r -> tkv.createKey(name, AS_SESSION, "", null, null, r));
        assertRefused(5, "", r -> tkv.setKeyValue(name, "v", AS_SESSION, "", null, null, r));
        assertRefused(5, "", r -> tkv.deleteKey(name, false, r));
        assertRefused(5, "", r -> assertNull(tkv.getKeyValue(name, r)));
        assertRefused(5, "", r -> assertNull(tkv.listSubKeys(name, r)));
        assertRefused(5, "", r -> assertNull(tkv.getUserName(name, r)));
    }

    @Test
    void aLevelHas264BytesAtTheMost() {
        create(top + LONGEST_LEVEL);
        assertTrue(exists(top + LONGEST_LEVEL));
        assertArrayEquals(new String[] {LONGEST_LEVEL}, done(r -> tkv.listSubKeys(parent(), r)));
        assertRefused(5, "", r -> tkv.createKey(top + LONGEST_LEVEL + "l", AS_SESSION, "", null, null, r));
        assertRefused(5, "", r -> tkv.createKey(top + "é".repeat(133), AS_SESSION, "", null, null, r));
    }

    @Test
    void aNameHas64LevelsAtTheMost() {
        String name = parent();
        for (int level = 2; level <= 64; level++) {
            name += ".l";
            create(name);
        }
        assertTrue(exists(name));
        String tooDeep = name + ".l";
        assertRefused(5, "", r -> tkv.createKey(tooDeep, AS_SESSION, "", null, null, r));
    }

    @Test
    void aNameHas1023BytesAtTheMost() {
        String name = parent();
        while (name.length() < 900) {
            name += "." + "m".repeat(99);
            create(name);
        }
        String longest = name + "." + "n".repeat(1023 - name.length() - 1);
        create(longest);
        assertTrue(exists(longest));
        assertRefused(5, "", r -> tkv.createKey(longest + "n", AS_SESSION, "", null, null, r));
    }

    @Test
    void createKeyMakesAKeyWithoutAValue() {
        create(top + "new");
        assertTrue(exists(top + "new"));
        assertNull(get(top + "new"));
        assertNull(done(r -> tkv.getKeyValues(top + "new", r)));
    }

    @Test
    void createKeyRefusesAKeyThatExists() {
        create(top + "twice");
        assertRefused(55, "twice", r -> tkv.createKey(top + "twice", AS_SESSION, "", null, null, r));
    }

    @Test
    void createKeyNeedsTheParent() {
        assertRefused(4, "", r -> tkv.createKey(top + "absent.child", AS_SESSION, "", null, null, r));
        assertFalse(exists(top + "absent"));
    }

    @Test
    void createKeyNeedsAName() {
        assertCode(0, r -> tkv.createKey("", AS_SESSION, "", null, null, r));
    }

    @Test
    void deleteKeyDeletesAndSucceedsWithoutAKey() {
        create(top + "gone");
        assertDone(r -> tkv.deleteKey(top + "gone", false, r));
        assertFalse(exists(top + "gone"));
        assertDone(r -> tkv.deleteKey(top + "gone", false, r));
    }

    @Test
    void deleteKeyTakesSubkeysOnlyWhenAsked() {
        create(top + "a");
        create(top + "a.b");
        create(top + "a.b.c");
        assertRefused(6, "a", r -> tkv.deleteKey(top + "a", false, r));
        assertTrue(exists(top + "a.b.c"));
        assertDone(r -> tkv.deleteKey(top + "a", true, r));
        assertFalse(exists(top + "a"));
        assertFalse(exists(top + "a.b.c"));
    }

    @Test
    void deleteKeyRefusesTheRoot() {
        assertRefused(8, "", r -> tkv.deleteKey("", true, r));
        assertTrue(exists(parent()));
    }

    @Test
    void listSubKeysGivesNullWithoutSubkeysAndWithoutTheKey() {
        assertNull(done(r -> tkv.listSubKeys(parent(), r)));
        assertNull(done(r -> tkv.listSubKeys(top + "absent", r)));
    }

    @Test
    void listSubKeysGivesTheNamesInByteOrder() {
        for (String name : new String[] {"b", "a", "é", "日本", "C", "\ud83d\ude00", "a-b", "10", "9"}) {
            create(top + name);
        }
        assertArrayEquals(new String[] {"10", "9", "C", "a", "a-b", "b", "é", "日本", "\ud83d\ude00"},
                          done(r -> tkv.listSubKeys(parent(), r)));
    }

    @Test
    void listSubKeysGivesOneLevel() {
        create(top + "only");
        create(top + "only.deeper");
        assertArrayEquals(new String[] {"only"}, done(r -> tkv.listSubKeys(parent(), r)));
    }

    @Test
    void listSubKeysGivesTenThousandNames() throws IOException, InterruptedException {
        String[] names = IntStream.range(0, 10_000).mapToObj(i -> String.format("k%05d", i)).toArray(String[]::new);
        Command.importKeys(parent(), Stream.concat(Stream.of(parent()), Stream.of(names).map(name -> top + name))
                .map(name -> "{\"name\":\"" + name + "\"}").toList());
        assertArrayEquals(names, done(r -> tkv.listSubKeys(parent(), r)));
        assertDone(r -> tkv.deleteKey(parent(), true, r));
        assertFalse(exists(top + names[9_999]));
    }

    @Test
    void moveKeyTakesTheSubtreeAlong() {
        put(top + "from", "1");
        put(top + "from.x", "2");
        create(top + "to");
        assertDone(r -> tkv.moveKey(top + "from", top + "to", "new", 0, r));
        assertFalse(exists(top + "from"));
        assertEquals("1", get(top + "to.new"));
        assertEquals("2", get(top + "to.new.x"));
    }

    @Test
    void moveKeyRenamesInPlace() {
        put(top + "old", "v");
        assertDone(r -> tkv.moveKey(top + "old", parent(), "new", 0, r));
        assertFalse(exists(top + "old"));
        assertEquals("v", get(top + "new"));
    }

    @Test
    void moveKeyReplacesATargetOnlyWhenAsked() {
        put(top + "source", "s");
        put(top + "target", "t");
        put(top + "target.below", "t");
        assertRefused(55, "target", r -> tkv.moveKey(top + "source", parent(), "target", 0, r));
        assertEquals("s", get(top + "source"));
        assertDone(r -> tkv.moveKey(top + "source", parent(), "target", 1, r));
        assertEquals("s", get(top + "target"));
        assertFalse(exists(top + "source"));
        assertFalse(exists(top + "target.below"));
    }

    @Test
    void moveKeyNeedsSourceAndParentAndKnownFlags() {
        create(top + "here");
        assertRefused(4, "absent", r -> tkv.moveKey(top + "absent", parent(), "x", 0, r));
        assertRefused(4, "nowhere", r -> tkv.moveKey(top + "here", top + "nowhere", "x", 0, r));
        assertRefused(5, "", r -> tkv.moveKey(top + "here", parent(), "", 0, r));
        assertRefused(8, "", r -> tkv.moveKey(top + "here", parent(), "x", 2, r));
        assertTrue(exists(top + "here"));
    }

    @Test
    void moveKeyRefusesATargetWithinItsSubtree() {
        create(top + "a");
        create(top + "a.b");
        assertRefused(17, "", r -> tkv.moveKey(top + "a", top + "a.b", "a", 0, r));
        assertTrue(exists(top + "a.b"));
    }

    @Test
    void aFailureWithoutATextOfItsOwnReportsThatOfAnEarlierOneUntilSomethingSucceeds() {
        assertRefused(4, "absent", r -> tkv.openKey("absent", r));
        assertRefused(4, "absent", r -> tkv.moveKey(null, null, null, 0, r));
        assertDone(r -> tkv.openKey("", r));
        assertCode(0, r -> tkv.moveKey(null, null, null, 0, r));
    }
}
