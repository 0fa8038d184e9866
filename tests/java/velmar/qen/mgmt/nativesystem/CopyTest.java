package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static velmar.qen.mgmt.nativesystem.Reports.assertCode;
import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.assertRefused;
import static velmar.qen.mgmt.nativesystem.Reports.assertText;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.io.IOException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Copies and moves of trees, compared key by key. */
class CopyTest extends OpenSession {
    private String source;
    private String target;

    @BeforeEach
    void nameKeys() {
        source = top + "s";
        target = top + "t";
    }

    /** Returns a line for a key and for each key below it: name, value, list, owner and group. */
    private List<String> contents(String name) {
        List<String> lines = new ArrayList<>();
        describe(name, "", lines);
        return lines;
    }

    private void describe(String name, String relative, List<String> lines) {
        String[] list = done(r -> tkv.getKeyValues(name, r));
        lines.add(String.join(" | ", relative, get(name), Arrays.toString(list),
                              done(r -> tkv.getUserName(name, r)), done(r -> tkv.getGroupName(name, r))));
        String[] subkeys = done(r -> tkv.listSubKeys(name, r));
        for (String subkey : subkeys == null ? new String[0] : subkeys) {
            describe(name + "." + subkey, relative + "." + subkey, lines);
        }
    }

    /** Returns an export of a tree: values with their types, owners and rights, by names relative to the tree. */
    private static List<String> exported(String name) throws IOException, InterruptedException {
        return Command.run("export", name).stream().map(line -> line.replace("\"" + name, "\"")).toList();
    }

    /** Creates a tree of 2,000 keys, eight levels deep, with values, owners and rights of every kind. */
    private void growTree() throws IOException, InterruptedException {
        List<String> keys = new ArrayList<>();
        keys.add(planted(source, 0));
        List<String> level = List.of(source);
        for (int depth = 1; depth <= 8; depth++) {
            List<String> next = new ArrayList<>();
            for (String parent : level) {
                int children = depth < 6 ? 3 : depth < 8 ? 2 : 1;
                for (int i = 0; i < children && keys.size() < 2_000; i++) {
                    next.add(parent + ".k" + i);
                    keys.add(planted(parent + ".k" + i, keys.size()));
                }
            }
            level = next;
        }
        assertTrue(level.size() > 0, "the tree reaches its eighth level");
        assertEquals(2_000, keys.size());
        Command.importKeys(source, keys);
    }

    private static String planted(String name, int number) {
        List<String> values = List.of("'none'", "'text','value':'v" + number + "'",
                "'list','value':['el" + number + "','größer']", "'int32','value':" + -number,
                "'int64','value':'" + (1L << 40) * number + "'", "'text','value':'" + "x".repeat(2_000) + "'",
                "9,'value':{'base64':'AP+AYQ=='}");
        String line = String.format("{'name':'%s','owner':'%s','group':'%s','mode':'%s','type':%s}", name,
                List.of("root", "nobody", "daemon").get(number % 3), List.of("root", "nogroup", "bin", "").get(number % 4),
                List.of("u=rlwscd,g=rlwscd,o=rl", "u=rlwscd,g=wcd,o=rl", "u=rl,g=,o=", "0x3f,0x3f,0x3f", "0x1,0x2,0x4")
                        .get(number % 5), values.get(number % values.size()));
        return line.replace('\'', '"');
    }

    @Test
    @AsRoot
    void aTreeOfTwoThousandKeysIsCopiedAndMovedWhole() throws IOException, InterruptedException {
        growTree();
        List<String> part = contents(source + ".k1.k1.k1");
        List<String> before = exported(source);
        assertTrue(part.size() > 8, part::toString);
        assertEquals(2_000, before.stream().filter(line -> line.startsWith("{\"name\":")).distinct().count());
        create(target);
        assertCopies(OWNED_BY);
        assertEquals(part, contents(target + ".k1.k1.k1"));
        assertEquals(part, contents(source + ".k1.k1.k1"), "the source stays as it was");

        create(top + "u");
        assertDone(r -> tkv.moveKey(target, top + "u", "moved", 0, r));
        assertFalse(exists(target));
        assertEquals(before, exported(top + "u.moved"), "the move took the whole copy along");
        assertEquals(part, contents(top + "u.moved.k1.k1.k1"));
    }

    // A level without subkeys also reports success, so a copy reports it more than once.
    private void assertCopies(int type) {
        Recorder result = new Recorder();
        tkv.copyRecurse(source, target, type, result);
        assertTrue(result.reports().size() >= 2, () -> result.reports().toString());
        assertTrue(result.reports().stream().allMatch("status true"::equals), () -> result.reports().toString());
    }

    // Columns: security type of the copy, owner and group of the copied key. The source belongs to daemon and bin.
    @ParameterizedTest
    @CsvSource({"1, daemon, bin", "2, root, bin", "3, root, root", "4, root, root", "5, daemon, bin", "6, daemon, bin",
                "0, daemon, bin", "99, daemon, bin"})
    @AsRoot
    void theTypeDecidesWhoOwnsTheCopiedKeyItself(int type, String owner, String group) {
        assertDone(r -> tkv.setKeyValue(source, "v", OWNED_BY, null, "daemon", "bin", r));
        assertDone(r -> tkv.setKeyValue(source + ".below", "w", OWNED_BY, null, "nobody", "nogroup", r));
        create(target);
        assertCopies(type);
        assertEquals("v", get(target));
        assertEquals(owner, done(r -> tkv.getUserName(target, r)));
        assertEquals(group, done(r -> tkv.getGroupName(target, r)));
        assertEquals("w", get(target + ".below"));
        assertEquals("nobody", done(r -> tkv.getUserName(target + ".below", r)));
        assertEquals("nogroup", done(r -> tkv.getGroupName(target + ".below", r)));
    }

    @Test
    void sourceAndDestinationMustExist() {
        create(source);
        assertRefused(4, "t", r -> tkv.copyRecurse(source, target, AS_SESSION, r));
        assertFalse(exists(target));
        assertRefused(4, "t", r -> tkv.copyRecurse(target, source, AS_SESSION, r));
        assertTrue(exists(source));
        assertCode(0, r -> tkv.copyRecurse(null, source, AS_SESSION, r));
    }

    @Test
    void aMissingDestinationNameEndsWithStatusTrueAfterTheFailure() {
        create(source);
        Recorder result = new Recorder();
        tkv.copyRecurse(source, null, AS_SESSION, result);
        assertEquals(List.of("status false", "code 0", "status true"), result.reports());
    }

    @Test
    void aValueOver2048BytesStopsTheCopyWithStatusTrueBelowTheTop() {
        put(source, "x".repeat(2_047));
        create(target);
        assertCopies(AS_SESSION);
        put(source + ".a", "a");
        put(source + ".long", "x".repeat(2_048));
        put(source + ".z", "z");
        Recorder result = new Recorder();
        tkv.copyRecurse(source, target, AS_SESSION, result);
        assertTrue(result.getStatus());
        assertNotEquals(null, result.getTKVResultString());
        assertText(9, "", result.reports().stream().filter(report -> report.startsWith("text")).findFirst().orElse(""));
        assertEquals("a", get(target + ".a"), "what was copied before stays");
        assertFalse(exists(target + ".z"));
    }

    @Test
    void aValueOver2048BytesAtTheTopStopsTheCopyWithStatusFalse() {
        put(source, "x".repeat(2_048));
        create(target);
        assertRefused(9, "", r -> tkv.copyRecurse(source, target, AS_SESSION, r));
        assertNull(get(target));
    }

    @Test
    void anExistingSubkeyStopsTheCopy() {
        put(source, "v");
        put(source + ".same", "new");
        create(target);
        put(target + ".same", "old");
        Recorder result = new Recorder();
        tkv.copyRecurse(source, target, AS_SESSION, result);
        assertText(55, "same", "text " + result.getTKVResultString());
        assertEquals("old", get(target + ".same"));
    }
}
