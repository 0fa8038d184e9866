package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import java.util.function.Supplier;
import java.util.prefs.BackingStoreException;
import java.util.prefs.InvalidPreferencesFormatException;
import java.util.prefs.NodeChangeEvent;
import java.util.prefs.NodeChangeListener;
import java.util.prefs.PreferenceChangeEvent;
import java.util.prefs.PreferenceChangeListener;
import java.util.prefs.Preferences;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestInfo;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** What {@link Preferences} documents, method by method, of preferences that are in the registry. */
class PreferencesContractTest {
    private static final Preferences USER = Preferences.userRoot();
    private static final Preferences SYSTEM = Preferences.systemRoot();
    private static final String TOO_LONG = "n".repeat(Preferences.MAX_NAME_LENGTH + 1);

    /** The test's own node. */
    private Preferences node;

    @BeforeEach
    void createNode(TestInfo test) {
        node = USER.node("contract/" + test.getTestMethod().orElseThrow().getName());
    }

    @AfterEach
    void removeNode() throws BackingStoreException {
        if (node.nodeExists("")) {
            node.removeNode();
        }
    }

    private static final NodeChangeListener DEAF = new NodeChangeListener() {
        @Override
        public void childAdded(NodeChangeEvent event) {}

        @Override
        public void childRemoved(NodeChangeEvent event) {}
    };

    /** Calls that need the node itself, by what they do. */
    private static Map<String, Executable> callsOn(Preferences used) {
        PreferenceChangeListener listener = event -> { };
        return Map.ofEntries(
                Map.entry("put", () -> used.put("k", "v")), Map.entry("get", () -> used.get("k", "d")),
                Map.entry("remove", () -> used.remove("k")), Map.entry("clear", used::clear),
                Map.entry("putInt", () -> used.putInt("k", 1)), Map.entry("getInt", () -> used.getInt("k", 1)),
                Map.entry("putLong", () -> used.putLong("k", 1)), Map.entry("getLong", () -> used.getLong("k", 1)),
                Map.entry("putBoolean", () -> used.putBoolean("k", true)),
                Map.entry("getBoolean", () -> used.getBoolean("k", true)),
                Map.entry("putFloat", () -> used.putFloat("k", 1)), Map.entry("getFloat", () -> used.getFloat("k", 1)),
                Map.entry("putDouble", () -> used.putDouble("k", 1)),
                Map.entry("getDouble", () -> used.getDouble("k", 1)),
                Map.entry("putByteArray", () -> used.putByteArray("k", new byte[1])),
                Map.entry("getByteArray", () -> used.getByteArray("k", null)),
                Map.entry("keys", used::keys), Map.entry("childrenNames", used::childrenNames),
                Map.entry("parent", used::parent), Map.entry("node", () -> used.node("child")),
                Map.entry("node itself", () -> used.node("")), Map.entry("nodeExists", () -> used.nodeExists("child")),
                Map.entry("removeNode", used::removeNode), Map.entry("sync", used::sync),
                Map.entry("exportNode", () -> used.exportNode(new ByteArrayOutputStream())),
                Map.entry("exportSubtree", () -> used.exportSubtree(new ByteArrayOutputStream())),
                Map.entry("addPreferenceChangeListener", () -> used.addPreferenceChangeListener(listener)),
                Map.entry("removePreferenceChangeListener", () -> used.removePreferenceChangeListener(listener)),
                Map.entry("addNodeChangeListener", () -> used.addNodeChangeListener(DEAF)),
                Map.entry("removeNodeChangeListener", () -> used.removeNodeChangeListener(DEAF)));
    }

    // --- Roots and names ---

    @Test
    void nodesKnowWhoTheyAre() {
        Preferences child = node.node("a/b");
        assertEquals("", USER.name());
        assertEquals("/", USER.absolutePath());
        assertNull(USER.parent());
        assertNull(SYSTEM.parent());
        assertTrue(USER.isUserNode());
        assertFalse(SYSTEM.isUserNode());
        assertEquals("b", child.name());
        assertEquals(node.absolutePath() + "/a/b", child.absolutePath());
        assertSame(node.node("a"), child.parent());
        assertTrue(child.isUserNode());
        assertEquals("User Preference Node: " + child.absolutePath(), child.toString());
        assertEquals("System Preference Node: /", SYSTEM.toString());
    }

    @Test
    void thePackageOfAClassHasANode() {
        String path = "/velmar/qen/mgmt/registry";
        assertEquals(path, Preferences.userNodeForPackage(Registry.class).absolutePath());
        assertSame(USER.node(path), Preferences.userNodeForPackage(Registry.class));
        assertSame(SYSTEM.node(path), Preferences.systemNodeForPackage(Registry.class));
    }

    @Test
    void pathsAreRelativeOrAbsolute() throws BackingStoreException {
        Preferences child = node.node("a/b");
        assertSame(child, USER.node(child.absolutePath()));
        assertSame(child, child.node(""));
        assertSame(USER, child.node("/"));
        assertTrue(child.nodeExists(""));
        assertTrue(child.nodeExists("/"));
        assertTrue(child.nodeExists(node.absolutePath()));
        assertTrue(node.nodeExists("a/b"));
        assertFalse(node.nodeExists("b"));
        assertFalse(node.nodeExists("a/b/c"));
        assertFalse(USER.nodeExists("/contract/absent/child"));
    }

    @ParameterizedTest
    @ValueSource(strings = {"a//b", "a/", "//", "//a", "a/b/", "/contract//a", "/contract/"})
    void pathsWithoutANameBetweenSlashesAreRefused(String path) {
        Preferences below = node.node("a/b").parent();
        assertThrows(IllegalArgumentException.class, () -> below.parent().node(path), path);
        assertThrows(IllegalArgumentException.class, () -> below.parent().nodeExists(path), path);
    }

    @Test
    void namesHaveAtMostEightyCharacters() throws BackingStoreException {
        String longest = TOO_LONG.substring(1);
        assertEquals(longest, node.node(longest).name());
        assertTrue(node.nodeExists(longest));
        node.put(longest, "v");
        assertEquals("v", node.get(longest, null));
        assertThrows(IllegalArgumentException.class, () -> node.node(TOO_LONG));
        assertThrows(IllegalArgumentException.class, () -> node.node("a/" + TOO_LONG));
        assertThrows(IllegalArgumentException.class, () -> node.put(TOO_LONG, "v"));
        assertFalse(node.nodeExists(TOO_LONG));
        assertFalse(node.nodeExists("n".repeat(300)));
        assertFalse(node.nodeExists("a/" + TOO_LONG));
        assertEquals("d", node.get(TOO_LONG, "d"));
        node.remove(TOO_LONG);
        node.remove("n".repeat(300));
        node.flush();
        assertArrayEquals(new String[] {longest}, node.keys());
    }

    @Test
    void aNodeThatIsTooDeepDoesNotExist() throws BackingStoreException {
        Preferences deepest = node;
        for (int i = node.absolutePath().split("/").length; i < 64 - 3; i++) {
            deepest = deepest.node("x");
        }
        Preferences last = deepest;  // at level 63 of the registry, below preferences.users.<user>
        assertThrows(IllegalArgumentException.class, () -> last.node("a/b/c"));
        assertFalse(last.nodeExists("a/b/c"));
        assertFalse(last.nodeExists("a/b/c/d/e"));
        assertFalse(node.nodeExists("y".repeat(80) + ("/" + "y".repeat(80)).repeat(20)));
        Preferences lowest = last.node("a");
        assertTrue(last.nodeExists("a"));
        assertFalse(lowest.nodeExists("b"));
        assertEquals("d", lowest.get("k", "d"));
        lowest.remove("k");
        lowest.flush();
        lowest.removeNode();
        assertFalse(last.nodeExists("a"));
    }

    // --- Values ---

    @Test
    void nullArgumentsAreRefused() {
        for (Executable call : List.<Executable>of(
                () -> node.put(null, "v"), () -> node.put("k", null), () -> node.get(null, "d"),
                () -> node.remove(null), () -> node.putInt(null, 1), () -> node.getInt(null, 1),
                () -> node.putLong(null, 1), () -> node.getLong(null, 1), () -> node.putBoolean(null, true),
                () -> node.getBoolean(null, true), () -> node.putFloat(null, 1), () -> node.getFloat(null, 1),
                () -> node.putDouble(null, 1), () -> node.getDouble(null, 1),
                () -> node.putByteArray(null, new byte[1]), () -> node.putByteArray("k", null),
                () -> node.getByteArray(null, null), () -> node.node(null), () -> node.nodeExists(null),
                () -> node.addPreferenceChangeListener(null), () -> node.addNodeChangeListener(null),
                () -> node.exportNode(null), () -> node.exportSubtree(null))) {
            assertThrows(NullPointerException.class, call);
        }
        assertNull(node.get("absent", null));
        assertNull(node.getByteArray("absent", null));
    }

    @Test
    void theNullCharacterIsRefused() throws BackingStoreException {
        for (Executable call : List.<Executable>of(
                () -> node.put("a\0b", "v"), () -> node.put("k", "a\0b"), () -> node.get("\0", "d"),
                () -> node.remove("\0"), () -> node.putInt("\0", 1), () -> node.putLong("\0", 1),
                () -> node.putBoolean("\0", true), () -> node.putFloat("\0", 1), () -> node.putDouble("\0", 1),
                () -> node.putByteArray("\0", new byte[1]), () -> node.getInt("\0", 1))) {
            assertThrows(IllegalArgumentException.class, call);
        }
        assertEquals(0, node.keys().length);
    }

    @Test
    void everyTypeIsATextThatReadsBack() {
        node.putInt("int", Integer.MIN_VALUE);
        node.putLong("long", Long.MAX_VALUE);
        node.putBoolean("boolean", true);
        node.putFloat("float", 1.5f);
        node.putDouble("double", Double.MIN_VALUE);
        node.putByteArray("bytes", new byte[] {0, -1, 127});
        assertEquals(Integer.MIN_VALUE, node.getInt("int", 0));
        assertEquals(Long.MAX_VALUE, node.getLong("long", 0));
        assertTrue(node.getBoolean("boolean", false));
        assertEquals(1.5f, node.getFloat("float", 0));
        assertEquals(Double.MIN_VALUE, node.getDouble("double", 0));
        assertArrayEquals(new byte[] {0, -1, 127}, node.getByteArray("bytes", null));
        assertEquals("-2147483648", node.get("int", null));
        assertEquals("AP9/", node.get("bytes", null));
        node.put("boolean", "TRUE");
        assertTrue(node.getBoolean("boolean", false));
    }

    @Test
    void whatIsNotOfTheTypeIsTheDefault() {
        node.put("k", "not a number!");
        assertTypedValuesAreDefaults(node);
    }

    /** Asks for the preference "k" by each type but text. */
    private static void assertTypedValuesAreDefaults(Preferences asked) {
        assertEquals(7, asked.getInt("k", 7));
        assertEquals(7L, asked.getLong("k", 7));
        assertTrue(asked.getBoolean("k", true));
        assertEquals(7f, asked.getFloat("k", 7));
        assertEquals(7.0, asked.getDouble("k", 7));
        assertArrayEquals(new byte[] {7}, asked.getByteArray("k", new byte[] {7}));
    }

    @Test
    void valuesHaveAtMost8192Characters() {
        String longest = "v".repeat(Preferences.MAX_VALUE_LENGTH);
        node.put("k", longest);
        assertEquals(longest, node.get("k", null));
        assertThrows(IllegalArgumentException.class, () -> node.put("k", longest + "v"));
        assertEquals(longest, node.get("k", null));
        byte[] bytes = new byte[Preferences.MAX_VALUE_LENGTH * 3 / 4];
        Arrays.fill(bytes, (byte) -1);
        node.putByteArray("bytes", bytes);
        assertArrayEquals(bytes, node.getByteArray("bytes", null));
        assertThrows(IllegalArgumentException.class, () -> node.putByteArray("bytes", new byte[bytes.length + 1]));
        assertArrayEquals(bytes, node.getByteArray("bytes", null));
    }

    @Test
    void keysAndNodesOfTheSameNameDiffer() throws BackingStoreException {
        node.put("same", "v");
        node.node("same").put("same", "w");
        node.remove("same");
        assertEquals("w", node.node("same").get("same", null));
        node.put("same", "x");
        node.node("same").removeNode();
        assertEquals("x", node.get("same", null));
        assertArrayEquals(new String[] {"same"}, node.keys());
        assertEquals(0, node.childrenNames().length);
    }

    @Test
    void clearRemovesTheKeysOfTheNodeAlone() throws BackingStoreException {
        node.put("a", "1");
        node.put("b", "2");
        node.node("child").put("c", "3");
        node.clear();
        assertEquals(0, node.keys().length);
        assertEquals("3", node.node("child").get("c", null));
    }

    // --- Removing nodes ---

    @Test
    void aRemovedNodeRefusesEveryCall() throws BackingStoreException {
        Preferences removed = node.node("removed");
        Preferences below = removed.node("a/b");
        removed.removeNode();
        for (Preferences each : List.of(removed, below)) {
            callsOn(each).forEach((name, call) -> assertThrows(IllegalStateException.class, call, name));
            assertFalse(each.nodeExists(""));
            assertTrue(each.absolutePath().startsWith(node.absolutePath() + "/removed"));
            assertTrue(each.name().equals("removed") || each.name().equals("b"));
            assertTrue(each.isUserNode());
            assertEquals("User Preference Node: " + each.absolutePath(), each.toString());
            each.flush();
        }
        assertFalse(node.nodeExists("removed"));
        assertEquals(0, node.childrenNames().length);
    }

    @Test
    void aNodeThatIsCreatedAgainIsNewAndEmpty() throws BackingStoreException {
        Preferences former = node.node("a");
        former.put("k", "v");
        former.node("child");
        former.removeNode();
        Preferences again = node.node("a");
        assertFalse(former == again);
        assertNull(again.get("k", null));
        assertEquals(0, again.childrenNames().length);
        again.put("k", "w");
        assertEquals("w", node.node("a").get("k", null));
        assertThrows(IllegalStateException.class, () -> former.get("k", null));
    }

    @Test
    void rootsCannotBeRemoved() throws BackingStoreException {
        node.put("k", "v");
        assertThrows(UnsupportedOperationException.class, USER::removeNode);
        assertThrows(UnsupportedOperationException.class, SYSTEM::removeNode);
        assertEquals("v", node.get("k", null));
    }

    // --- Events ---

    /** Notes events of both kinds in the order in which it is told of them. */
    private static final class Recorder implements NodeChangeListener, PreferenceChangeListener {
        private final BlockingQueue<String> told = new LinkedBlockingQueue<>();

        @Override
        public void childAdded(NodeChangeEvent event) {
            note(event, "+", event.getParent(), event.getChild());
        }

        @Override
        public void childRemoved(NodeChangeEvent event) {
            note(event, "-", event.getParent(), event.getChild());
        }

        private void note(NodeChangeEvent event, String kind, Preferences parent, Preferences child) {
            boolean right = event.getSource() == parent && child.absolutePath().startsWith(parent.absolutePath());
            told.add(parent.name() + kind + child.name() + (right ? "" : " from elsewhere"));
        }

        @Override
        public void preferenceChange(PreferenceChangeEvent event) {
            boolean right = event.getSource() == event.getNode();
            told.add(event.getNode().name() + "." + event.getKey() + "=" + event.getNewValue()
                    + (right ? "" : " from elsewhere"));
        }

        Recorder on(Preferences... nodes) {
            for (Preferences each : nodes) {
                each.addNodeChangeListener(this);
                each.addPreferenceChangeListener(this);
            }
            return this;
        }

        void assertTold(String... expected) throws InterruptedException {
            List<String> events = new ArrayList<>();
            for (int i = 0; i < expected.length; i++) {
                events.add(String.valueOf(told.poll(60, TimeUnit.SECONDS)));
            }
            assertEquals(List.of(expected), events);
            assertTrue(told.isEmpty(), told::toString);
        }
    }

    @Test
    void eventsComeInTheOrderOfTheChangesAndNameTheirSource() throws BackingStoreException, InterruptedException {
        Preferences parent = node.node("p");
        Recorder recorder = new Recorder().on(parent);
        parent.put("k", "1");
        parent.put("k", "1");
        parent.node("c");
        parent.node("c");
        parent.putInt("k", 2);
        parent.remove("k");
        parent.node("c").put("below", "of no concern");
        parent.node("c").removeNode();
        parent.node("c");
        recorder.assertTold("p.k=1", "p.k=1", "p+c", "p.k=2", "p.k=null", "p-c", "p+c");
    }

    @Test
    void listenersOfAllAncestorsLearnThatASubtreeIsRemoved() throws BackingStoreException, InterruptedException {
        Preferences a = node.node("a");
        Preferences b = a.node("b");
        b.node("c");
        Recorder recorder = new Recorder().on(a, b, node);
        a.removeNode();
        recorder.assertTold("b-c", "a-b", node.name() + "-a");
    }

    @Test
    void aNodeOfSeveralLevelsIsAddedLevelByLevel() throws InterruptedException {
        Preferences a = node.node("a");
        Recorder recorder = new Recorder().on(node, a);
        a.node("b/c");
        node.node("x/y");
        recorder.assertTold("a+b", node.name() + "+x");
    }

    @Test
    void aListenerIsToldAsOftenAsItIsRegistered() throws InterruptedException {
        Recorder recorder = new Recorder().on(node, node);
        node.put("k", "v");
        node.node("c");
        String name = node.name();
        recorder.assertTold(name + ".k=v", name + ".k=v", name + "+c", name + "+c");
        node.removeNodeChangeListener(recorder);
        node.removePreferenceChangeListener(recorder);
        node.put("k", "w");
        node.node("d");
        recorder.assertTold(name + ".k=w", name + "+d");
        node.removeNodeChangeListener(recorder);
        node.removePreferenceChangeListener(recorder);
        assertThrows(IllegalArgumentException.class, () -> node.removeNodeChangeListener(recorder));
        assertThrows(IllegalArgumentException.class, () -> node.removePreferenceChangeListener(recorder));
    }

    // --- The backing store ---

    @Test
    void withoutABackingStoreValuesAreDefaultsAndTheRestFails() {
        Supplier<Registry> opener = () -> {
            throw new RegistryUnavailableException(null, "TKV-0015: nobody there");
        };
        Preferences lost = new RegistryPreferences(PreferencesTree.ofSystem(opener));
        assertEquals("d", lost.get("k", "d"));
        assertNull(lost.get("k", null));
        assertTypedValuesAreDefaults(lost);
        Preferences child = lost.node("a/b");
        for (Executable call : List.<Executable>of(
                lost::keys, lost::childrenNames, lost::clear, lost::flush, lost::sync, child::removeNode,
                () -> lost.nodeExists("absent"), () -> lost.exportNode(new ByteArrayOutputStream()),
                () -> lost.exportSubtree(new ByteArrayOutputStream()))) {
            assertThrows(BackingStoreException.class, call);
        }
        assertEquals("b", child.name());
        child.put("k", "kept");
        assertEquals("kept", child.get("k", null));
    }

    // --- Documents ---

    private static String exported(Preferences exported, boolean withSubtree) throws Exception {
        ByteArrayOutputStream document = new ByteArrayOutputStream();
        if (withSubtree) {
            exported.exportSubtree(document);
        } else {
            exported.exportNode(document);
        }
        return document.toString(StandardCharsets.UTF_8);
    }

    private static void imports(String document) throws Exception {
        Preferences.importPreferences(new ByteArrayInputStream(document.getBytes(StandardCharsets.UTF_8)));
    }

    @Test
    void aDocumentNamesTheRootAndTheAncestors() throws Exception {
        node.parent().put("of the parent", "v");
        Preferences child = node.node("child");
        child.put("own", "v");
        child.node("grandchild").put("below", "v");
        node.put("beside", "v");
        String alone = exported(child, false);
        assertTrue(alone.startsWith("<?xml version=\"1.0\" encoding=\"UTF-8\""), alone);
        assertTrue(alone.contains("<!DOCTYPE preferences SYSTEM \"http://java.sun.com/dtd/preferences.dtd\">"), alone);
        assertTrue(alone.contains("<root type=\"user\">"), alone);
        for (String each : List.of("contract", node.name(), "child")) {
            assertTrue(alone.contains("<node name=\"" + each + "\">"), alone);
        }
        assertTrue(alone.contains("<entry key=\"own\" value=\"v\"/>"), alone);
        for (String each : List.of("below", "beside", "of the parent", "grandchild")) {
            assertFalse(alone.contains(each), alone);
        }
        String whole = exported(child, true);
        assertTrue(whole.contains("<entry key=\"below\" value=\"v\"/>"), whole);
        assertFalse(whole.contains("beside"), whole);
        assertTrue(exported(SYSTEM, false).contains("<root type=\"system\">"));
        node.parent().remove("of the parent");
    }

    @Test
    void anImportReplacesValuesAndKeepsTheRest() throws Exception {
        node.put("k", "exported");
        node.node("child").put("k", "exported");
        String document = exported(node, true);
        node.put("k", "changed");
        node.put("other", "kept");
        node.node("child").removeNode();
        node.node("new").put("k", "kept");
        imports(document);
        assertEquals("exported", node.get("k", null));
        assertEquals("kept", node.get("other", null));
        assertEquals("exported", node.node("child").get("k", null));
        assertEquals("kept", node.node("new").get("k", null));
        assertEquals(Set.of("child", "new"), Set.of(node.childrenNames()));
    }

    @Test
    void anExportedNodeIsImportedWithoutItsChildren() throws Exception {
        node.put("k", "v");
        node.node("child").put("k", "v");
        String document = exported(node, false);
        node.removeNode();
        imports(document);
        node = USER.node(node.absolutePath());
        assertEquals("v", node.get("k", null));
        assertEquals(0, node.childrenNames().length);
    }

    @Test
    void whatIsNoDocumentIsRefused() {
        for (String bad : List.of("", "text", "<preferences/>", "<?xml version=\"1.0\"?><preferences",
                                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                                  + "<!DOCTYPE preferences SYSTEM \"http://java.sun.com/dtd/preferences.dtd\">"
                                  + "<preferences EXTERNAL_XML_VERSION=\"9.9\"><root type=\"user\"><map/></root>"
                                  + "</preferences>")) {
            assertThrows(InvalidPreferencesFormatException.class, () -> imports(bad), bad);
            assertThrows(InvalidPreferencesFormatException.class,
                         () -> RegistryPreferencesFactory.importPreferences(
                                 new ByteArrayInputStream(bad.getBytes(StandardCharsets.UTF_8))), bad);
        }
    }
}
