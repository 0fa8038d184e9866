package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeTrue;

import java.io.IOException;
import java.lang.ref.WeakReference;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;
import velmar.qen.mgmt.nativesystem.Configuration;
import velmar.qen.mgmt.nativesystem.TKVNative;
import velmar.qen.mgmt.nativesystem.TKVResult;

/** Every kind of failure, on a real registry. */
class FailureTest extends OpenRegistry {
    private static <E extends RegistryException> E assertFails(Class<E> kind, int code, String key, Executable call) {
        E failure = assertThrows(kind, call);
        assertSame(kind, failure.getClass());
        assertEquals(code, failure.code());
        assertEquals(key, failure.key());
        assertTrue(failure.text().startsWith(String.format("TKV-%04d: ", code)), failure::text);
        assertEquals(failure.text(), failure.getMessage());
        return failure;
    }

    @Test
    void anAbsentKeyIsNotFound() {
        String absent = below("absent");
        Map<String, Executable> calls = Map.of(
                "get", () -> registry.getText(absent), "getInt", () -> registry.getInt(absent),
                "getList", () -> registry.getList(absent), "list", () -> registry.list(absent),
                "walk", () -> registry.walk(absent), "owner", () -> registry.owner(absent),
                "group", () -> registry.group(absent), "move", () -> registry.move(absent, below("x")),
                "copy", () -> registry.copy(absent, below("x")));
        calls.forEach((method, call) -> {
            KeyNotFoundException failure = assertFails(KeyNotFoundException.class, 4, absent, call);
            assertTrue(failure.text().contains("absent"), () -> method + ": " + failure.text());
        });
        assertFalse(registry.exists(below("x")));
    }

    @Test
    void anAbsentParentIsNotFound() {
        String orphan = below("absent.child");
        for (Executable call : List.<Executable>of(
                () -> registry.create(orphan), () -> registry.put(orphan, "v"), () -> registry.put(orphan, 1),
                () -> registry.createWith(orphan, "v", KeySecurity.readableByAll()),
                () -> registry.createWith(orphan, "v", KeySecurity.open()),
                () -> registry.put(orphan, List.of("v")))) {
            assertFails(KeyNotFoundException.class, 4, orphan, call);
        }
        assertFails(KeyNotFoundException.class, 4, "absent.child", () -> registry.copy(top, "absent.child"));
        assertFails(KeyNotFoundException.class, 4, "absent.child", () -> registry.move(top, "absent.child"));
        assertTrue(registry.exists(top));
    }

    @Test
    void anExistingKeyIsNotCreatedAgain() {
        registry.put(below("k"), "former");
        registry.put(below("k.sub"), "former");
        registry.create(below("other"));
        for (KeySecurity security : List.of(KeySecurity.readableByAll(), KeySecurity.open())) {
            assertFails(KeyExistsException.class, 55, below("k"), () -> registry.create(below("k"), security));
            assertFails(KeyExistsException.class, 55, below("k"),
                        () -> registry.createWith(below("k"), "new", security));
        }
        assertFails(KeyExistsException.class, 55, "", () -> registry.create(""));
        assertFails(KeyExistsException.class, 55, below("k"), () -> registry.copy(below("other"), below("k")));
        assertFails(KeyExistsException.class, 55, below("k"), () -> registry.move(below("other"), below("k")));
        assertEquals("former", registry.getText(below("k")));
        assertEquals("former", registry.getText(below("k.sub")));
    }

    @ParameterizedTest
    @ValueSource(strings = {"a..b", ".", "a.", ".a", "a\u0000b", "a.\u0000"})
    void anInvalidNameIsRefused(String name) {
        for (Executable call : List.<Executable>of(
                () -> registry.getText(name), () -> registry.exists(name), () -> registry.list(name),
                () -> registry.create(name), () -> registry.put(name, "v"), () -> registry.delete(name),
                () -> registry.getList(name), () -> registry.owner(name), () -> registry.put(name, List.of()),
                () -> registry.move(name, "x"))) {
            assertFails(InvalidNameException.class, 5, name, call);
        }
    }

    @Test
    void anInvalidTargetIsRefused() {
        for (String target : List.of(below(""), below(".x"), below("l".repeat(265)))) {
            assertFails(InvalidNameException.class, 5, target, () -> registry.move(top, target));
            assertFails(InvalidNameException.class, 5, target, () -> registry.copy(top, target));
            assertFails(InvalidNameException.class, 5, "x" + target, () -> registry.copy(top, "x" + target));
        }
        assertFails(InvalidNameException.class, 5, "", () -> registry.move(top, ""));
        assertFails(InvalidNameException.class, 5, "", () -> registry.copy(top, ""));
        assertTrue(registry.exists(top));
    }

    @Test
    void aPatchLevelThatIsNoneIsRefused() {
        registry.ensure("SYSTEM.version");
        for (Value wrong : List.of(new Value.Text("seven"), new Value.Int32(-1), new Value.Int64(1L << 40),
                                   new Value.TextList(List.of("7")))) {
            registry.put("SYSTEM.version.patch", wrong);
            assertFails(RegistryException.class, 8, "SYSTEM.version.patch", registry::patchLevel);
        }
        registry.deleteTree("SYSTEM");
    }

    @Test
    void aModeThatIsNoneIsRefused() {
        assertFails(RegistryException.class, 8, null, () -> registry.recordServiceDependencies(3));
        assertFalse(registry.exists("SYSTEM"));
    }

    @Test
    void anOverlongNameIsRefused() {
        String name = below("l".repeat(265));
        assertFails(InvalidNameException.class, 5, name, () -> registry.create(name));
    }

    private static String chain(int levels, int size) {
        return String.join(".", Collections.nCopies(levels, "l".repeat(size)));
    }

    /** A level of 264 bytes, in characters of one, three and six bytes; 1,023 bytes; and 64 levels. */
    @Test
    void namesGoUpToTheRegistrysLimits() {
        String longest = chain(3, 264) + "." + "l".repeat(228);
        Map<String, String> names = Map.of("l".repeat(264), "l", "日".repeat(88), "l", "\ud83d\ude00".repeat(44), "l",
                                           "\ud83d".repeat(88), "l", longest, "l", chain(64, 1), ".l");
        names.forEach((name, more) -> {
            registry.ensure(name);
            registry.put(name, name);
            assertEquals(name, registry.getText(name));
            assertEquals(name, registry.stat(name).name());
            String first = name.split("\\.")[0];
            assertTrue(registry.list("").contains(first), first);
            assertFails(InvalidNameException.class, 5, name + more, () -> registry.exists(name + more));
            assertFails(InvalidNameException.class, 5, name + more, () -> registry.create(name + more));
            assertTrue(registry.deleteTree(first));
        });
    }

    @Test
    void aKeyWithSubkeysIsNotDeletedAlone() {
        registry.create(below("k"));
        assertFails(KeyNotEmptyException.class, 6, top, () -> registry.delete(top));
        assertTrue(registry.exists(below("k")));
    }

    @Test
    void theRootIsNotDeleted() {
        assertFails(RegistryException.class, 8, "", () -> registry.deleteTree(""));
        assertFails(RegistryException.class, 8, "", () -> registry.delete(""));
        assertFails(RegistryException.class, 8, "", () -> registry.move("", "x"));
        try (Registry empty = Registry.temporary()) {
            assertFails(RegistryException.class, 8, "", () -> empty.delete(""));
            assertFails(RegistryException.class, 8, "", () -> empty.deleteTree(""));
            assertTrue(empty.exists(""));
        }
    }

    @Test
    void aKeyIsNotMovedOrCopiedIntoItself() {
        registry.create(below("k"));
        assertFails(RegistryException.class, 17, top, () -> registry.move(top, below("k.x")));
        assertFails(RegistryException.class, 17, top, () -> registry.copy(top, below("copy")));
        assertFails(RegistryException.class, 17, "", () -> registry.copy("", "copy"));
        assertFails(RegistryException.class, 17, top, () -> registry.copy(top, top));
        assertFails(RegistryException.class, 17, top, () -> registry.move(top, top));
        assertFails(RegistryException.class, 17, top, () -> registry.moveReplacing(top, top));
        assertFails(RegistryException.class, 17, top, () -> registry.copyReplacing(top, top, CopyOwner.SOURCE));
        assertEquals(List.of("k"), registry.list(top));
    }

    @Test
    void aValueThatIsTooLargeLeavesTheFormer() {
        String large = "x".repeat(1 << 20);
        registry.put(below("k"), "former");
        assertFails(ValueTooLargeException.class, 10, below("k"), () -> registry.put(below("k"), large));
        assertEquals("former", registry.getText(below("k")));
        for (KeySecurity security : List.of(KeySecurity.readableByAll(), KeySecurity.open())) {
            assertFails(ValueTooLargeException.class, 10, below("new"),
                        () -> registry.createWith(below("new"), large, security));
            assertFalse(registry.exists(below("new")), "nothing half made stays");
        }
    }

    @Test
    void aCopyOfNamesThatWouldBeTooLongLeavesNothing() {
        String level = "l".repeat(150);
        registry.ensure("s." + String.join(".", List.of(level, level, level, level, level, level)));
        registry.create(below(level));
        String target = below(level) + ".t";
        RegistryException failure = assertThrows(RegistryException.class, () -> registry.copy("s", target));
        assertEquals(5, failure.code());
        assertThrows(InvalidNameException.class, () -> registry.move("s", target));
        assertFalse(registry.exists(target));
        assertTrue(registry.exists("s." + level));
        registry.deleteTree("s");
    }

    @Test
    void nullArgumentsAreRefused() {
        KeySecurity any = KeySecurity.open();
        for (Executable call : List.<Executable>of(
                () -> registry.getText(null), () -> registry.findText(null), () -> registry.getText(null, ""),
                () -> registry.value(null), () -> registry.findValue(null), () -> registry.getList(null),
                () -> registry.exists(null), () -> registry.list(null), () -> registry.walk(null),
                () -> registry.entries(null), () -> registry.stat(null), () -> registry.rights(null),
                () -> registry.security(null), () -> registry.owner(null), () -> registry.group(null),
                () -> registry.getEnum("k", (Thread.State) null), () -> registry.put(null, "v"),
                () -> registry.put("k", (String) null), () -> registry.put("k", (byte[]) null),
                () -> registry.put("k", (Duration) null), () -> registry.put("k", (Enum<?>) null),
                () -> registry.put("k", (Value) null), () -> registry.put("k", "v", null),
                () -> registry.put("k", (List<String>) null), () -> registry.put("k", Arrays.asList("a", null)),
                () -> registry.put("k", new Value.None(), null), () -> registry.create(null),
                () -> registry.create("k", null), () -> registry.createWith("k", (String) null, any),
                () -> registry.createWith("k", (Value) null, any), () -> registry.createWith("k", "v", null),
                () -> registry.ensure(null), () -> registry.ensure("k", null), () -> registry.setSecurity(null, any),
                () -> registry.setSecurity("k", null), () -> registry.setSecurityTree("k", null),
                () -> registry.delete(null), () -> registry.deleteTree(null), () -> registry.move(null, "k"),
                () -> registry.move(top, null), () -> registry.moveReplacing(top, null),
                () -> registry.copy(null, "k"), () -> registry.copy("k", null), () -> registry.copy("k", "l", null),
                () -> registry.copyReplacing("k", "l", null), () -> registry.storageAt(null),
                () -> Registry.open((Path) null), () -> Registry.open((RegistryOptions) null),
                () -> Registry.at(null), () -> Registry.at(Path.of("x"), null))) {
            assertThrows(NullPointerException.class, call);
        }
        assertFalse(registry.exists("k"));
    }

    @Test
    void aClosedRegistryRejectsEveryCall() {
        registry.close();
        for (Executable call : List.<Executable>of(
                () -> registry.value("k"), () -> registry.findValue("k"), () -> registry.getText("k"),
                () -> registry.getText("k", "d"), () -> registry.findText("k"), () -> registry.getInt("k", 1),
                () -> registry.exists("k"), () -> registry.list(""), () -> registry.walk(""),
                () -> registry.entries(""), () -> registry.stat(""), () -> registry.rights(""),
                () -> registry.security(""), () -> registry.owner("k"), () -> registry.group("k"),
                () -> registry.put("k", "v"), () -> registry.put("k", List.of()), () -> registry.put("k", 1),
                () -> registry.put("k", 1L), () -> registry.put("k", new Value.None()), () -> registry.create("k"),
                () -> registry.createWith("k", "v", KeySecurity.open()), () -> registry.ensure("k"),
                () -> registry.setSecurity("k", KeySecurity.open()),
                () -> registry.setSecurityTree("k", KeySecurity.open()), () -> registry.delete("k"),
                () -> registry.deleteTree("k"), () -> registry.move("k", "l"),
                () -> registry.moveReplacing("k", "l"), () -> registry.copy("k", "l"),
                () -> registry.copyReplacing("k", "l", CopyOwner.SOURCE), () -> registry.user(),
                () -> registry.group(), () -> registry.isClusterMember(), () -> registry.locations(),
                () -> registry.storageAt("/"), () -> registry.backupLocation(), () -> registry.patchLevel(),
                () -> registry.recordServiceDependencies(0))) {
            RegistryClosedException closed = assertThrows(RegistryClosedException.class, call);
            assertEquals("TKV-0003: the registry is closed", closed.text());
        }
        registry.close();
    }

    @Test
    void anAbandonedRegistryIsClosedInTheEnd(@TempDir Path directory) throws IOException {
        WeakReference<Registry> abandoned = new WeakReference<>(Registry.at(directory.resolve("registry")));
        Instant deadline = Instant.now().plus(Duration.ofSeconds(240));
        while ((abandoned.get() != null || isOpenFile(directory)) && Instant.now().isBefore(deadline)) {
            System.gc();
            Thread.onSpinWait();
        }
        assertEquals(null, abandoned.get());
        assertFalse(isOpenFile(directory));
    }

    /** Returns whether this process has a file below a directory open. */
    private static boolean isOpenFile(Path directory) throws IOException {
        try (Stream<Path> open = Files.list(Path.of("/proc/self/fd"))) {
            for (Path link : open.toList()) {
                if (Files.isSymbolicLink(link) && Files.readSymbolicLink(link).startsWith(directory)) {
                    return true;
                }
            }
        } catch (NoSuchFileException e) {
            return true;  // closed meanwhile, perhaps the very file: look again
        }
        return false;
    }

    @Test
    void theSessionOfTheNativeMethodsIsIndependent() {
        TKVNative natives = new TKVNative();
        TKVResult result = new TKVResult();
        natives.initializeTKVLevel(0, result);
        assertTrue(result.getStatus());
        natives.terminateTKV(new TKVResult());
        assertTrue(registry.exists(top));
        natives.initializeTKVLevel(0, new TKVResult());
        registry.close();
        assertTrue(natives.keyExists(top, new TKVResult()));
        natives.terminateTKV(new TKVResult());
    }

    @Test
    void aConfigurationThatIsWrongIsNamed() {
        registry.close();
        try (Configuration broken = new Configuration("[registry]\nwrong\n")) {
            RegistryException failure = assertFails(RegistryException.class, 41, null, Registry::open);
            assertTrue(failure.text().contains(Configuration.file() + ":2"), failure::text);
        }
        registry = Registry.open();
    }

    @Test
    void fullStorageLeavesTheRegistryUnharmed(@TempDir Path directory) throws IOException {
        registry.close();
        try (TroubledStorage storage = TroubledStorage.in(directory)) {
            registry = Registry.open();
            registry.put("kept", "kept");
            storage.runShort();
            String half = "x".repeat(1 << 19);
            StorageFullException full = assertThrows(StorageFullException.class, () -> {
                for (int i = 0; i < 4; i++) {
                    registry.put("large" + i, half);
                }
            });
            assertEquals(11, full.code());
            assertEquals("kept", registry.getText("kept"));
            storage.makeRoom();
            registry.put("kept", "still writable");
            registry.close();
            registry = Registry.open();
            assertEquals("still writable", registry.getText("kept"));
            registry.close();
        }
    }

    @Test
    void aDamagedValueIsNeverGivenOut(@TempDir Path directory) throws IOException {
        registry.close();
        try (TroubledStorage storage = TroubledStorage.in(directory)) {
            registry = Registry.open();
            registry.put("damaged", "a value to be damaged");
            registry.put("whole", "whole");
            registry.close();
            storage.damage("a value to be damaged");
            registry = Registry.open();
            assertFails(RegistryDamagedException.class, 7, "damaged", () -> registry.getText("damaged"));
            assertEquals("whole", registry.getText("whole"));
            registry.close();
        }
    }

    @Test
    void aRegistryThatCannotBeReachedIsUnavailable() {
        registry.close();
        String text = "[registry]\nlocation = etcd://127.0.0.1:1\nlocal_only = no\n[etcd]\ntimeout_ms = 300\n";
        try (Configuration unreachable = new Configuration(text)) {
            assertFails(RegistryUnavailableException.class, 15, null, Registry::open);
        }
        registry = Registry.open();
    }

    @Test
    void aChangeWhoseReplyIsLostIsUndecided(@TempDir Path directory) throws IOException {
        assumeTrue(Configuration.onCluster(), "an embedded registry knows the outcome of its changes");
        String key = below("undecided");
        String value = "a value that can be recognized";
        registry.put(key, "former");
        Path file = directory.resolve("tkv.conf");
        RegistryOptions impatient = RegistryOptions.builder().timeout(Duration.ofSeconds(3)).build();
        try (SilentProxy proxy = new SilentProxy(Configuration.locations().get(0), value)) {
            Files.writeString(file, "[etcd]\nprefix = " + Configuration.setting("prefix") + "\n[registry]\nlocation = "
                    + proxy.location() + "\nlocal_only = no\n");
            try (Registry unanswered = Registry.open(file, impatient)) {
                assertEquals("former", unanswered.getText(key));
                assertFails(UndecidedException.class, 20, key, () -> unanswered.put(key, value));
            }
        }
        assertEquals(value, registry.getText(key), "this change was made");
    }
}
