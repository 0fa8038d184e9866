package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertDoesNotThrow;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.EnumSet;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Random;
import java.util.Set;
import java.util.TreeMap;
import java.util.TreeSet;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.Supplier;
import java.util.prefs.BackingStoreException;
import java.util.prefs.InvalidPreferencesFormatException;
import java.util.prefs.NodeChangeEvent;
import java.util.prefs.NodeChangeListener;
import java.util.prefs.PreferenceChangeListener;
import java.util.prefs.Preferences;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestInfo;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.api.io.TempDir;
import velmar.qen.mgmt.nativesystem.ChildJvm;
import velmar.qen.mgmt.nativesystem.Command;

/** {@code java.util.prefs} in the configured registry. The JVM is started with the property that names the factory. */
class PreferencesTest {
    private static final String FACTORY =
            "-Djava.util.prefs.PreferencesFactory=" + RegistryPreferencesFactory.class.getName();

    private Registry registry;
    /** The test's own node. */
    private Preferences node;
    /** The full name of its key. */
    private String key;

    @BeforeEach
    void createNode(TestInfo test) {
        registry = Registry.open();
        String name = test.getTestMethod().orElseThrow().getName();
        node = Preferences.userRoot().node(name);
        key = treeOf(registry) + "." + name;
    }

    @AfterEach
    void closeRegistry() {
        registry.close();
    }

    private static String treeOf(Registry registry) {
        return "preferences.users." + PreferenceNames.ofNode(registry.user());
    }

    private static byte[] exported(Preferences node) throws Exception {
        ByteArrayOutputStream document = new ByteArrayOutputStream();
        node.exportSubtree(document);
        return document.toByteArray();
    }

    @Test
    void allFactoriesReturnTheTreesOfTheProcess() {
        assertSame(Preferences.userRoot(), new RegistryPreferencesFactory().userRoot());
        assertSame(Preferences.systemRoot(), new RegistryPreferencesFactory().systemRoot());
    }

    // --- Where preferences are ---

    @Test
    void preferencesAreTextsInTheRegistry() {
        node.put("port", "8080");
        node.node("a.b/c").putBoolean("@x.y", true);
        assertEquals("8080", registry.getText(key + ".@port"));
        assertEquals("true", registry.getText(key + ".a~2Eb.c.@@x~2Ey"));
        registry.put(key + ".@port", "9090");
        assertEquals(9090, node.getInt("port", 0));
    }

    @Test
    void theTreeOfTheUserIsPrivate() {
        node.node("child").put("k", "v");
        String tree = treeOf(registry);
        for (String name : List.of(tree, key, key + ".child", key + ".child.@k")) {
            assertEquals(Optional.of(registry.user()), registry.owner(name));
            assertEquals(Set.of(), registry.security(name).groupRights());
            assertEquals(Set.of(), registry.security(name).otherRights());
        }
        assertTrue(node.isUserNode());
    }

    @Test
    void theTreeOfTheSystemHasTheRightsThatItWasGiven() {
        Preferences system = Preferences.systemRoot();
        system.put("first", "v");
        registry.setSecurity("preferences.system", KeySecurity.privateToGroup());
        system.node("app").put("k", "v");
        assertEquals(EnumSet.allOf(Right.class), registry.security("preferences.system.app.@k").groupRights());
        assertEquals(Set.of(), registry.security("preferences.system.app.@k").otherRights());
        assertFalse(system.node("app").isUserNode());
    }

    @Test
    void aTreeThatIsNotPrivateToItsUserIsNotUsed() throws BackingStoreException {
        try (Registry own = Registry.temporary()) {
            own.ensure(treeOf(own), KeySecurity.readableByAll());
            Preferences root = new RegistryPreferences(PreferencesTree.ofUser(() -> own));
            root.put("secret", "v");
            BackingStoreException refused = assertThrows(BackingStoreException.class, root::flush);
            assertTrue(refused.getMessage().contains("is not private to '" + own.user() + "'"), refused::getMessage);
            assertFalse(own.exists(treeOf(own) + ".@secret"));
            own.setSecurity(treeOf(own), KeySecurity.privateToUser());
            root.flush();
            assertEquals("v", own.getText(treeOf(own) + ".@secret"));
        }
    }

    // --- Names and values ---

    @Test
    void anyNameAndValueIsKept() throws BackingStoreException {
        List<String> names = List.of("a", "A", "a.b", "~2E", "@", "größer", "\ud83d\ude00", "\ud800", "\udc00\ud800",
                                     " ", "\n", "%s", "\u0001\u001f\u007f", "\u0085\u2028", "\ufffe\uffff",
                                     ".".repeat(80), "€".repeat(80), "~".repeat(80), "\ud800".repeat(80));
        for (String name : names) {
            node.put(name, "value of " + name);
            node.node(name).put(name, "below " + name);
        }
        node.put("", "");
        node.put("a/b", "€".repeat(8192));
        Preferences read = new RegistryPreferences(PreferencesTree.ofUser(Registry::open)).node(node.absolutePath());
        for (String name : names) {
            assertEquals("value of " + name, read.get(name, null));
            assertEquals("below " + name, read.node(name).get(name, null));
        }
        assertEquals("", read.get("", null));
        assertEquals("€".repeat(8192), read.get("a/b", null));
        assertEquals(Set.copyOf(names), Set.of(read.childrenNames()));
        assertEquals(names.size() + 2, read.keys().length);
    }

    /** {@code Preferences} refuses it in keys and values only. */
    @Test
    void theNullCharacterMayBeInTheNameOfANode() throws BackingStoreException {
        String name = "\0".repeat(80);
        node.node(name).put("k", "v");
        Preferences read = new RegistryPreferences(PreferencesTree.ofUser(Registry::open)).node(node.absolutePath());
        assertTrue(read.nodeExists(name));
        assertArrayEquals(new String[] {name}, read.childrenNames());
        assertEquals("v", read.node(name).get("k", null));
    }

    @Test
    void listenersLearnOfAnyNameAndValueThatAnotherProgramHasWritten() throws Exception {
        Events events = new Events();
        node.addNodeChangeListener(events);
        node.addPreferenceChangeListener(event -> events.events.add(event.getKey() + "=" + event.getNewValue()));
        for (String name : List.of("a.b", "\ud800", "\udc00\ud800", "\u0001\n", "@~", "€".repeat(80))) {
            registry.put(key + "." + PreferenceNames.ofPreference(name), "value of " + name);
            events.assertNext(name + "=value of " + name);
            registry.create(key + "." + PreferenceNames.ofNode(name));
            events.assertNext("added " + name);
        }
    }

    @Test
    void namesThatTheJdkRefusesAreRefused() {
        assertThrows(IllegalArgumentException.class, () -> node.put("a\0", "v"));
        assertThrows(IllegalArgumentException.class, () -> node.put("a".repeat(81), "v"));
        assertThrows(IllegalArgumentException.class, () -> node.put("a", "v".repeat(8193)));
        assertThrows(IllegalArgumentException.class, () -> node.node("a".repeat(81)));
    }

    @Test
    void whatIsTooDeepOrTooLongIsRefused() throws BackingStoreException {
        int levels = (int) key.chars().filter(c -> c == '.').count() + 1;
        Preferences deepest = node.node(String.join("/", Arrays.asList("x".repeat(64 - levels).split(""))));
        assertThrows(IllegalArgumentException.class, () -> deepest.node("x"));
        IllegalArgumentException deep = assertThrows(IllegalArgumentException.class, () -> deepest.put("k", "v"));
        assertTrue(deep.getMessage().contains("65 levels of 64"), deep::getMessage);
        deepest.parent().put("k", "v");
        assertEquals("v", deepest.parent().get("k", null));
        assertEquals("default", deepest.get("k", "default"));

        Preferences longest = node;
        int left = 1023 - key.length();
        for (; left > 81; left -= 81) {
            longest = longest.node("y".repeat(80));
        }
        Preferences last = longest;
        int fits = left - 2;
        last.put("k".repeat(fits), "v");
        IllegalArgumentException tooLong =
                assertThrows(IllegalArgumentException.class, () -> last.put("k".repeat(fits + 1), "v"));
        assertTrue(tooLong.getMessage().contains("1024 bytes of 1023"), tooLong::getMessage);
        assertEquals("v", last.get("k".repeat(fits), null));
        node.flush();
    }

    @Test
    void whatIsNoPreferenceIsLeftOut() throws Exception {
        node.put("good", "v");
        registry.put(key + ".@number", 7);
        registry.put(key + ".@bad~zz", "v");
        registry.ensure(key + ".bad~zz.child");
        registry.ensure(key + ".a/b");
        registry.put(key + ".node", "with a value");
        assertArrayEquals(new String[] {"good"}, node.keys());
        assertArrayEquals(new String[] {"node"}, node.childrenNames());
        assertEquals("default", node.get("number", "default"));
        String document = new String(exported(node), StandardCharsets.UTF_8);
        assertTrue(document.contains("good") && document.contains("\"node\""), document);
        assertFalse(document.contains("bad") || document.contains("number"), document);
    }

    // --- Nodes ---

    @Test
    void aNodeIsCreatedWithItsAncestors() throws BackingStoreException {
        assertFalse(node.nodeExists("a/b"));
        Preferences created = node.node("a/b");
        assertTrue(node.nodeExists("a/b"));
        assertTrue(registry.exists(key + ".a.b"));
        assertSame(created, node.node("a").node("b"));
        assertEquals("default", created.get("k", "default"));
    }

    @Test
    void aRemovedPreferenceIsGone() throws BackingStoreException {
        node.put("a", "1");
        node.put("b", "2");
        node.remove("a");
        node.remove("absent");
        assertEquals("default", node.get("a", "default"));
        assertArrayEquals(new String[] {"b"}, node.keys());
        node.clear();
        assertEquals(0, node.keys().length);
        assertEquals(List.of(), registry.list(key));
    }

    @Test
    void aRemovedNodeIsGoneWithEverythingBelow() throws BackingStoreException {
        Preferences removed = node.node("a");
        Preferences below = removed.node("b/c");
        below.put("k", "v");
        registry.ensure(key + ".a.unknown.node");
        removed.removeNode();
        assertFalse(registry.exists(key + ".a"));
        assertFalse(node.nodeExists("a"));
        assertFalse(below.nodeExists(""));
        assertThrows(IllegalStateException.class, () -> below.get("k", "default"));
        assertThrows(IllegalStateException.class, removed::sync);
        assertThrows(IllegalStateException.class, removed::removeNode);
        assertThrows(IllegalStateException.class, () -> exported(removed));
        assertThrows(UnsupportedOperationException.class, () -> Preferences.userRoot().removeNode());
        assertNull(node.node("a/b/c").get("k", null));
    }

    @Test
    void aRemovedNodeCanBeFlushed() throws BackingStoreException {
        Preferences below = node.node("a/b/c");
        node.node("a").removeNode();
        below.flush();
        assertFalse(registry.exists(key + ".a"));
    }

    // --- Threads ---

    /** Does anything on a few nodes that all threads use. A node may be removed at any time. */
    private static void work(Preferences node, int seed) throws Exception {
        Random random = new Random(seed);
        for (int i = 0; i < 300; i++) {
            try {
                Preferences used = node.node("a/b/c".substring(0, 1 + 2 * random.nextInt(3)));
                switch (random.nextInt(9)) {
                    case 0 -> used.removeNode();
                    case 1 -> used.flush();
                    case 2 -> node.sync();
                    case 3 -> exported(used);
                    case 4 -> used.remove("k");
                    case 5 -> used.childrenNames();
                    case 6 -> used.keys();
                    case 7 -> RegistryPreferencesFactory.importPreferences(
                            new ByteArrayInputStream(exported(node)));
                    default -> used.put("k", "v");
                }
            } catch (IllegalStateException e) {
                assertTrue(e.getMessage().startsWith("Node"), e::getMessage);
            }
        }
    }

    @Test
    @Timeout(120)
    void threadsDoNotDisturbEachOther() throws Exception {
        node.addNodeChangeListener(new Events());
        ExecutorService threads = Executors.newCachedThreadPool();
        try {
            List<Future<Void>> work = new ArrayList<>();
            for (int i = 0; i < 6; i++) {
                int seed = i;
                work.add(threads.submit(() -> {
                    work(node, seed);
                    return null;
                }));
            }
            for (Future<Void> each : work) {
                each.get();
            }
        } finally {
            threads.shutdownNow();
        }
        node.node("a").put("k", "last");
        node.sync();
        assertEquals("last", registry.getText(key + ".a.@k"));
    }

    // --- Events ---

    private static final class Events implements NodeChangeListener {
        private final BlockingQueue<String> events = new LinkedBlockingQueue<>();

        @Override
        public void childAdded(NodeChangeEvent event) {
            events.add("added " + event.getChild().name());
        }

        @Override
        public void childRemoved(NodeChangeEvent event) {
            events.add("removed " + event.getChild().name());
        }

        String next() throws InterruptedException {
            return String.valueOf(events.poll(60, TimeUnit.SECONDS));
        }

        void assertNext(String... expected) throws InterruptedException {
            List<String> next = new ArrayList<>();
            for (String ignored : expected) {
                next.add(next());
            }
            assertEquals(List.of(expected), next);
            assertTrue(events.isEmpty(), events::toString);
        }
    }

    @Test
    void listenersLearnOfTheChangesOfThisProcess() throws Exception {
        Events events = new Events();
        registry.ensure(key + ".there");
        node.addNodeChangeListener(events);
        node.addPreferenceChangeListener(event -> events.events.add(event.getKey() + "=" + event.getNewValue()));
        node.node("there");
        node.node("new");
        node.put("k", "v");
        node.remove("k");
        node.node("new").removeNode();
        events.assertNext("added new", "k=v", "k=null", "removed new");
    }

    @Test
    void listenersLearnOfTheChangesOfOtherProcesses() throws Exception {
        Events events = new Events();
        Preferences child = node.node("child");
        child.put("moved", "v");
        node.addNodeChangeListener(events);
        node.addPreferenceChangeListener(event -> events.events.add(event.getKey() + "=" + event.getNewValue()));
        Command.run("set", key + ".@port", "8080");
        events.assertNext("port=8080");
        Command.run("set", key + ".@port", "9090");
        events.assertNext("port=9090");
        Command.run("rm", key + ".@port");
        events.assertNext("port=null");
        Command.run("create", key + ".new");
        events.assertNext("added new");
        Command.run("mv", key + ".child", key + ".renamed");
        assertEquals(Set.of("removed child", "added renamed"), Set.of(events.next(), events.next()));
        assertThrows(IllegalStateException.class, () -> child.get("moved", null));
        assertEquals("v", node.node("renamed").get("moved", null));
        node.put("own", "once");
        events.assertNext("own=once");
        Command.run("set", key + ".@last", "v");
        events.assertNext("last=v");
    }

    /** Containers may share a host name and the numbers of their processes, as two openings in one process do. */
    @Test
    void listenersLearnOfChangesThatWereNotMadeThroughThesePreferences() throws Exception {
        Events events = new Events();
        node.addNodeChangeListener(events);
        node.addPreferenceChangeListener(event -> events.events.add(event.getKey() + "=" + event.getNewValue()));
        registry.put(key + ".@port", "8080");
        events.assertNext("port=8080");
        node.put("own", "once");
        registry.create(key + ".child");
        events.assertNext("own=once", "added child");
        registry.delete(key + ".@port");
        events.assertNext("port=null");
    }

    @Test
    void listenersLearnLastOfTheTextThatAPreferenceHas() throws Exception {
        Events events = new Events();
        CountDownLatch goOn = new CountDownLatch(1);
        node.addPreferenceChangeListener(event -> {
            events.events.add(event.getKey() + "=" + event.getNewValue());
            assertDoesNotThrow(() -> event.getKey().equals("first") && goOn.await(60, TimeUnit.SECONDS));
        });
        registry.put(key + ".@first", "v");
        events.assertNext("first=v");
        registry.put(key + ".@k", "of others");
        node.put("k", "own");
        events.assertNext("k=own");
        goOn.countDown();
        events.assertNext("k=of others", "k=own");
    }

    /** Puts and removes a few preferences and nodes, together with so many others that the log does not list them. */
    private static void changeMuch(Registry registry, String key) {
        Batch batch = registry.batch(KeySecurity.privateToUser()).createParents();
        for (int i = 0; i < 1_100; i++) {
            batch.put(key + ".filler.@k" + i, "v");
        }
        batch.put(key + ".@changed", "2").put(key + ".@new", "3").put(key + ".child.@below", "4");
        batch.delete(key + ".@removed").deleteTree(key + ".gone").commit();
    }

    @Test
    void aChangeThatIsNotListedKeyByKeyIsToldKeyByKey() throws Exception {
        Events events = new Events();
        Preferences child = node.node("child");
        for (String name : List.of("same", "changed", "removed")) {
            node.put(name, "1");
        }
        node.node("gone").put("k", "v");
        child.addPreferenceChangeListener(event -> events.events.add("child " + event.getKey()));
        node.addNodeChangeListener(events);
        node.addPreferenceChangeListener(event -> events.events.add(event.getKey() + "=" + event.getNewValue()));
        node.put("own", "1");
        events.assertNext("own=1");
        try (EventReader log = registry.events(key, 1)) {
            changeMuch(registry, key);
            RegistryEvent.Changed change = (RegistryEvent.Changed) log.next(Duration.ofSeconds(60)).orElseThrow();
            assertEquals(KeyChange.Kind.AT_OR_BELOW, change.changes().get(0).kind());
        }
        Set<String> told = new TreeSet<>();
        for (int i = 0; i < 6; i++) {
            told.add(events.next());
        }
        assertEquals(Set.of("removed gone", "added filler", "changed=2", "new=3", "removed=null", "child below"), told);
        registry.put(key + ".@changed", "5");
        events.assertNext("changed=5");
    }

    @Test
    void listenersThatHaveFallenBehindLearnOfTheDifferences(@TempDir Path directory) throws Exception {
        try (Registry own = HistoryOf.with("changes = 3", directory)) {
            Preferences app = new RegistryPreferences(PreferencesTree.ofUser(() -> own)).node("app");
            String top = treeOf(own) + ".app";
            Events events = new Events();
            CountDownLatch goOn = new CountDownLatch(1);
            own.put(top + ".@kept", "1");
            app.addNodeChangeListener(events);
            app.addPreferenceChangeListener(event -> {
                events.events.add(event.getKey() + "=" + event.getNewValue());
                assertDoesNotThrow(() -> goOn.await(60, TimeUnit.SECONDS));
            });
            own.put(top + ".@first", "1");
            events.assertNext("first=1");
            own.create(top + ".new");
            for (int i = 0; i < 20; i++) {
                own.put(top + ".@k", String.valueOf(i));
            }
            own.delete(top + ".@first");
            own.put(top + ".other", "no preference");
            goOn.countDown();
            Set<String> told = new TreeSet<>();
            for (String next = events.next(); !next.equals("last=v"); next = events.next()) {
                if (told.isEmpty()) {
                    own.put(top + ".@last", "v");
                }
                told.add(next);
            }
            assertEquals(Set.of("added new", "added other", "k=19", "first=null"), told);
        }
    }

    @Test
    void aListenerThatIsRemovedLearnsOfNothing() throws Exception {
        Events removed = new Events();
        Events events = new Events();
        PreferenceChangeListener listener = event -> removed.events.add(event.getKey());
        node.addNodeChangeListener(removed);
        node.addPreferenceChangeListener(listener);
        node.addPreferenceChangeListener(event -> events.events.add(event.getKey()));
        node.removeNodeChangeListener(removed);
        node.removePreferenceChangeListener(listener);
        assertThrows(IllegalArgumentException.class, () -> node.removePreferenceChangeListener(listener));
        Command.run("create", key + ".child");
        Command.run("set", key + ".@k", "v");
        events.assertNext("k");
        assertEquals(List.of(), List.copyOf(removed.events));
    }

    @Test
    void syncRemovesTheNodesThatAnotherProcessHasRemoved() throws Exception {
        Events events = new Events();
        Preferences child = node.node("child");
        Preferences below = child.node("below");
        Preferences other = node.node("other");
        node.addNodeChangeListener(events);
        registry.deleteTree(key + ".child");
        node.sync();
        events.assertNext("removed child");
        assertFalse(node.nodeExists("child"));
        assertThrows(IllegalStateException.class, () -> below.put("k", "v"));
        assertFalse(registry.exists(key + ".child"));
        other.put("k", "v");
        assertNotEquals(child, node.node("child"));
    }

    @Test
    void aChangeRecreatesANodeThatAnotherProcessHasRemoved() {
        Preferences child = node.node("child");
        registry.deleteTree(key);
        child.put("k", "v");
        assertEquals("v", registry.getText(key + ".child.@k"));
        assertEquals(Set.of(), registry.security(key).otherRights());
    }

    // --- Failures ---

    @Test
    void whatCannotBeWrittenIsKeptAndFlushed() throws BackingStoreException {
        try (Registry own = Registry.temporary()) {
            AtomicReference<RegistryException> failure =
                    new AtomicReference<>(new RegistryUnavailableException(null, "TKV-0015: nobody there"));
            Supplier<Registry> opener = () -> {
                if (failure.get() != null) {
                    throw failure.get();
                }
                return own;
            };
            Preferences app = new RegistryPreferences(PreferencesTree.ofUser(opener)).node("app");
            app.put("a", "1");
            app.put("b", "2");
            app.remove("b");
            assertEquals("1", app.get("a", null));
            assertEquals("default", app.get("b", "default"));
            assertEquals("default", app.get("c", "default"));
            for (BackingStoreException thrown : List.of(assertThrows(BackingStoreException.class, app::flush),
                                                        assertThrows(BackingStoreException.class, app::sync),
                                                        assertThrows(BackingStoreException.class, app::keys),
                                                        assertThrows(BackingStoreException.class, app::removeNode))) {
                assertEquals("TKV-0015: nobody there", thrown.getMessage());
                assertSame(failure.get(), thrown.getCause());
            }
            failure.set(null);
            assertArrayEquals(new String[] {"a"}, app.keys());
            app.flush();
            assertEquals(List.of("@a"), own.list(treeOf(own) + ".app"));
            app.put("b", "3");
            assertEquals("3", own.getText(treeOf(own) + ".app.@b"));
            app.flush();
        }
    }

    @Test
    void flushWritesAllOrNothing() throws BackingStoreException {
        try (Registry own = Registry.temporary()) {
            List<Registry> available = new ArrayList<>();
            Supplier<Registry> opener = () -> available.stream().findFirst().orElseThrow(
                    () -> new RegistryUnavailableException(null, "TKV-0015: nobody there"));
            Preferences root = new RegistryPreferences(PreferencesTree.ofSystem(opener));
            root.node("good").put("k", "v");
            root.node("x/".repeat(61) + "x").put("k", "v");
            available.add(own);
            String message = assertThrows(BackingStoreException.class, root::flush).getMessage();
            assertTrue(message.startsWith("TKV-0005: "), message);
            assertEquals(List.of(), own.list("preferences.system"));
            root.node("good").flush();
            assertEquals(List.of("good"), own.list("preferences.system"));
        }
    }

    // --- Documents ---

    @Test
    void aDocumentRestoresASubtree() throws Exception {
        node.node("a/b.c").put("k<&>", "v \"é\"");
        node.node("empty");
        node.put("x", "y");
        byte[] document = exported(node);
        node.node("a").removeNode();
        node.remove("x");
        Preferences.importPreferences(new ByteArrayInputStream(document));
        assertArrayEquals(document, exported(node));
        assertEquals("v \"é\"", registry.getText(key + ".a.b~2Ec.@k<&>"));
        node.clear();
        RegistryPreferencesFactory.importPreferences(new ByteArrayInputStream(document));
        assertArrayEquals(document, exported(node));
        assertEquals("y", registry.getText(key + ".@x"));

        ByteArrayOutputStream alone = new ByteArrayOutputStream();
        node.exportNode(alone);
        assertTrue(alone.toString().contains("\"x\"") && !alone.toString().contains("b.c"), alone::toString);
    }

    @Test
    void anImportThatFailsImportsNothing() throws Exception {
        node.put("former", "v");
        String root = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                + "<!DOCTYPE preferences SYSTEM \"http://java.sun.com/dtd/preferences.dtd\">"
                + "<preferences EXTERNAL_XML_VERSION=\"1.0\"><root type=\"user\"><map/><node name=\"" + node.name()
                + "\"><map><entry key=\"good\" value=\"v\"/><entry key=\"" + "k".repeat(81)
                + "\" value=\"v\"/></map></node></root></preferences>";
        assertThrows(IllegalArgumentException.class, () -> RegistryPreferencesFactory.importPreferences(
                new ByteArrayInputStream(root.getBytes(StandardCharsets.UTF_8))));
        assertThrows(InvalidPreferencesFormatException.class, () -> RegistryPreferencesFactory.importPreferences(
                new ByteArrayInputStream(new byte[1])));
        assertArrayEquals(new String[] {"former"}, node.keys());
        node.put("next", "v");
        assertEquals("v", registry.getText(key + ".@next"));
        assertNull(node.get("good", null));
    }

    // --- Processes ---

    /** Changes preferences as its arguments say. */
    static final class Program {
        private static final int VALUES = 300;

        private Program() {}

        public static void main(String[] arguments) throws Exception {
            Preferences node = Preferences.userRoot().node(arguments[1]);
            switch (arguments[0]) {
                case "put" -> {
                    for (int i = 0; i < VALUES; i++) {
                        node.node("n" + i % 10).put(arguments[2] + i, "value " + i);
                    }
                    Runtime.getRuntime().halt(7);
                }
                case "import" -> {
                    for (int i = 0; i < 10; i++) {
                        RegistryPreferencesFactory.importPreferences(new ByteArrayInputStream(document(node, i)));
                    }
                }
                default -> throw new IllegalArgumentException(arguments[0]);
            }
        }

        private static byte[] document(Preferences node, int number) throws Exception {
            PreferencesSnapshot copy = PreferencesSnapshot.empty(node.absolutePath(), true);
            for (int i = 0; i < VALUES; i++) {
                copy.add(List.of("n" + i % 10, "@k" + i), String.valueOf(number));
            }
            return exported(copy);
        }
    }

    private Process start(String... arguments) throws Exception {
        return ChildJvm.start(List.of(FACTORY), Map.of(), Program.class, arguments);
    }

    private static void assertExits(int code, Process process) throws Exception {
        String output = new String(process.getInputStream().readAllBytes());
        assertTrue(process.waitFor(240, TimeUnit.SECONDS));
        assertEquals(code, process.exitValue(), output);
    }

    @Test
    void twoProcessesThatWriteAtOnceLoseNothing() throws Exception {
        Process first = start("put", node.absolutePath(), "a");
        Process second = start("put", node.absolutePath(), "b");
        for (int i = 0; i < Program.VALUES; i++) {
            node.node("n" + i % 10).put("c" + i, "value " + i);
        }
        assertExits(7, first);
        assertExits(7, second);
        for (int i = 0; i < Program.VALUES; i++) {
            for (String prefix : List.of("a", "b", "c")) {
                assertEquals("value " + i, node.node("n" + i % 10).get(prefix + i, null));
            }
        }
        assertEquals(10, node.childrenNames().length);
    }

    @Test
    void anExportShowsAnImportOfAnotherProcessWholeOrNotAtAll() throws Exception {
        Process importing = start("import", node.absolutePath());
        while (importing.isAlive()) {
            assertWhole();
        }
        assertExits(0, importing);
        assertEquals(Map.of("9", Program.VALUES), assertWhole());
    }

    /** Returns how often each value occurs in an export: none, or one of them everywhere. */
    private Map<String, Integer> assertWhole() throws Exception {
        Map<String, Integer> counts = new TreeMap<>();
        String document = new String(exported(node), StandardCharsets.UTF_8);
        document.lines().filter(line -> line.contains("<entry")).forEach(
                line -> counts.merge(line.replaceAll(".*value=\"(\\d+)\".*", "$1"), 1, Integer::sum));
        assertTrue(counts.isEmpty() || counts.size() == 1 && counts.containsValue(Program.VALUES), counts::toString);
        return counts;
    }
}
