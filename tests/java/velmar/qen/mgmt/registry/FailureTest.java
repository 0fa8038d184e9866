package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.lang.ref.WeakReference;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.Arrays;
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
                "get", () -> registry.get(absent), "getInt", () -> registry.getInt(absent),
                "getList", () -> registry.getList(absent), "list", () -> registry.list(absent),
                "walk", () -> registry.walk(absent), "owner", () -> registry.owner(absent),
                "group", () -> registry.group(absent), "move", () -> registry.move(absent, below("x")),
                "copyTree", () -> registry.copyTree(absent, below("x")));
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
                () -> registry.create(orphan), () -> registry.put(orphan, "v"), () -> registry.putInt(orphan, 1),
                () -> registry.createWith(orphan, "v", Security.sameAsSession()),
                () -> registry.createWith(orphan, "v", Security.open()),
                () -> registry.putList(orphan, List.of("v")))) {
            assertFails(KeyNotFoundException.class, 4, orphan, call);
        }
        assertFails(KeyNotFoundException.class, 4, "absent.child", () -> registry.copyTree(top, "absent.child"));
        assertFails(KeyNotFoundException.class, 4, "absent.child", () -> registry.move(top, "absent.child"));
        assertTrue(registry.exists(top));
    }

    @Test
    void anAbsentKeyToInheritFromIsNamed() {
        RegistryException failure = assertFails(KeyNotFoundException.class, 4, "not.there",
                () -> registry.put(below("k"), "v", Security.inheritFrom("not.there")));
        assertTrue(failure.text().contains("not.there"), failure::text);
        assertFalse(registry.exists(below("k")));
    }

    @Test
    void anExistingKeyIsNotCreatedAgain() {
        registry.put(below("k"), "former");
        registry.put(below("k.sub"), "former");
        registry.create(below("other"));
        for (Security security : List.of(Security.sameAsSession(), Security.open())) {
            assertFails(KeyExistsException.class, 55, below("k"), () -> registry.create(below("k"), security));
            assertFails(KeyExistsException.class, 55, below("k"),
                        () -> registry.createWith(below("k"), "new", security));
        }
        assertFails(KeyExistsException.class, 55, "", () -> registry.create(""));
        assertFails(KeyExistsException.class, 55, below("k"), () -> registry.copyTree(below("other"), below("k")));
        assertFails(KeyExistsException.class, 55, below("k"), () -> registry.move(below("other"), below("k")));
        assertEquals("former", registry.get(below("k")));
        assertEquals("former", registry.get(below("k.sub")));
    }

    @ParameterizedTest
    @ValueSource(strings = {"a..b", ".", "a."})
    void anInvalidNameIsRefused(String name) {
        for (Executable call : List.<Executable>of(
                () -> registry.get(name), () -> registry.exists(name), () -> registry.list(name),
                () -> registry.create(name), () -> registry.put(name, "v"), () -> registry.delete(name),
                () -> registry.getList(name), () -> registry.owner(name), () -> registry.putList(name, List.of()),
                () -> registry.move(name, "x"))) {
            assertFails(InvalidNameException.class, 5, name, call);
        }
    }

    @Test
    void anInvalidTargetIsRefused() {
        for (String target : List.of(below(""), below(".x"), below("l".repeat(265)))) {
            assertFails(InvalidNameException.class, 5, target, () -> registry.move(top, target));
            assertFails(RegistryException.class, 17, top, () -> registry.copyTree(top, target));
            assertFails(InvalidNameException.class, 5, "x" + target, () -> registry.copyTree(top, "x" + target));
        }
        assertFails(InvalidNameException.class, 5, "", () -> registry.move(top, ""));
        assertFails(KeyExistsException.class, 55, "", () -> registry.copyTree(top, ""));
        assertTrue(registry.exists(top));
    }

    @Test
    void aPatchLevelThatIsNoNumberIsRefused() {
        registry.create("SYSTEM");
        registry.create("SYSTEM.version");
        registry.put("SYSTEM.version.patch", "seven");
        assertFails(RegistryException.class, 8, null, registry::patchLevel);
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

    @Test
    void aKeyWithSubkeysIsNotDeletedAlone() {
        registry.create(below("k"));
        assertFails(KeyNotEmptyException.class, 6, top, () -> registry.delete(top));
        assertTrue(registry.exists(below("k")));
    }

    @Test
    void theRootIsNotDeleted() {
        assertFails(RegistryException.class, 8, "", () -> registry.deleteTree(""));
    }

    @Test
    void aKeyIsNotMovedOrCopiedIntoItself() {
        registry.create(below("k"));
        assertFails(RegistryException.class, 17, top, () -> registry.move(top, below("k.x")));
        assertFails(RegistryException.class, 17, top, () -> registry.copyTree(top, below("copy")));
        assertFails(RegistryException.class, 17, "", () -> registry.copyTree("", "copy"));
        assertFails(KeyExistsException.class, 55, top, () -> registry.copyTree(top, top));
        assertEquals(List.of("k"), registry.list(top));
    }

    @Test
    void aValueThatIsTooLargeLeavesTheFormer() {
        String large = "x".repeat(1 << 20);
        registry.put(below("k"), "former");
        assertFails(ValueTooLargeException.class, 10, below("k"), () -> registry.put(below("k"), large));
        assertEquals("former", registry.get(below("k")));
        for (Security security : List.of(Security.sameAsSession(), Security.open())) {
            assertFails(ValueTooLargeException.class, 10, below("new"),
                        () -> registry.createWith(below("new"), large, security));
            assertFalse(registry.exists(below("new")), "nothing half made stays");
        }
    }

    @Test
    void aListThatIsTooLongLeavesTheFormer() {
        registry.putList(below("k"), List.of("former"));
        assertFails(ValueTooLargeException.class, 10, below("k"),
                    () -> registry.putList(below("k"), List.of("x".repeat(8_191))));
        assertEquals(List.of("former"), registry.getList(below("k")));
    }

    @Test
    void aCopyThatFailsHalfWayLeavesNothing() {
        registry.create(below("s"));
        registry.put(below("s.a"), "a");
        registry.put(below("s.large"), "x".repeat(2_048));
        assertFails(ValueTooLargeException.class, 9, below("s"), () -> registry.copyTree(below("s"), below("t")));
        assertFalse(registry.exists(below("t")));
        assertEquals(List.of("a", "large"), registry.list(below("s")));
    }

    @Test
    void aCopyOfNamesThatAreTooLongLeavesNothing() {
        registry.create(below("s"));
        String level = "l".repeat(150);
        registry.create(below("s." + level));
        registry.create(below("s." + level + "." + level));
        assertFails(InvalidNameException.class, 5, below("s"), () -> registry.copyTree(below("s"), below("t")));
        assertFalse(registry.exists(below("t")));
    }

    @Test
    void anEmptyTextInAListIsRefused() {
        assertThrows(IllegalArgumentException.class, () -> registry.putList(below("k"), List.of("a", "")));
        assertFalse(registry.exists(below("k")));
    }

    @Test
    void nullArgumentsAreRefused() {
        for (Executable call : List.<Executable>of(
                () -> registry.get(null), () -> registry.find(null), () -> registry.getList(null),
                () -> registry.exists(null), () -> registry.list(null), () -> registry.walk(null),
                () -> registry.owner(null), () -> registry.group(null), () -> registry.put(null, "v"),
                () -> registry.put("k", null), () -> registry.put("k", "v", null), () -> registry.putList("k", null),
                () -> registry.putList("k", Arrays.asList("a", null)), () -> registry.create(null),
                () -> registry.create("k", null), () -> registry.createWith("k", null, Security.open()),
                () -> registry.delete(null), () -> registry.deleteTree(null), () -> registry.move(null, "k"),
                () -> registry.move(top, null), () -> registry.copyTree(null, "k"), () -> registry.copyTree("k", null),
                () -> registry.copyTree("k", "l", null), () -> registry.storageAt(null),
                () -> Security.ownedBy(null), () -> Security.inheritFrom(null))) {
            assertThrows(NullPointerException.class, call);
        }
        assertFalse(registry.exists("k"));
    }

    @Test
    void aGroupThatCannotBeKeptIsRefused() {
        Security security = Security.sameAsSession().withGroup("日".repeat(30));
        for (Executable call : List.<Executable>of(
                () -> registry.put(below("k"), "v", security), () -> registry.create(below("k"), security),
                () -> registry.createWith(below("k"), "v", security),
                () -> registry.putList(below("k"), List.of("v"), security))) {
            assertFails(RegistryException.class, 8, below("k"), call);
        }
        assertFalse(registry.exists(below("k")));
    }

    @Test
    void aClosedRegistryRejectsEveryCall() {
        Stream<String> names = registry.walk("");
        registry.close();
        for (Executable call : List.<Executable>of(
                () -> registry.get("k"), () -> registry.get("k", "d"), () -> registry.find("k"),
                () -> registry.getInt("k"), () -> registry.getLong("k"), () -> registry.getList("k"),
                () -> registry.exists("k"), () -> registry.list(""), () -> registry.walk(""), names::toList,
                () -> registry.owner("k"), () -> registry.group("k"), () -> registry.put("k", "v"),
                () -> registry.putList("k", List.of()), () -> registry.putInt("k", 1), () -> registry.putLong("k", 1),
                () -> registry.create("k"), () -> registry.createWith("k", "v", Security.open()),
                () -> registry.delete("k"), () -> registry.deleteTree("k"), () -> registry.move("k", "l"),
                () -> registry.moveReplacing("k", "l"), () -> registry.copyTree("k", "l"),
                () -> registry.isClusterMember(), () -> registry.locations(), () -> registry.storageAt("/"),
                () -> registry.backupLocation(), () -> registry.patchLevel(),
                () -> registry.recordServiceDependencies(0))) {
            RegistryClosedException closed = assertThrows(RegistryClosedException.class, call);
            assertInstanceOf(IllegalStateException.class, closed);
        }
        registry.close();
    }

    @Test
    void aSecondRegistryIsRefusedWhileTheFirstIsOpen() {
        IllegalStateException refusal = assertThrows(IllegalStateException.class, Registry::open);
        assertTrue(refusal.getMessage().contains("open already"), refusal::getMessage);
        assertTrue(registry.exists(top));
    }

    @Test
    void anAbandonedRegistryIsClosedInTheEnd() {
        registry.close();
        WeakReference<Registry> abandoned = new WeakReference<>(Registry.open());
        Instant deadline = Instant.now().plus(Duration.ofSeconds(240));
        registry = null;
        while (registry == null && Instant.now().isBefore(deadline)) {
            System.gc();
            try {
                registry = Registry.open();
            } catch (IllegalStateException stillOpen) {
                Thread.onSpinWait();
            }
        }
        assertTrue(registry.exists(""));
        assertEquals(null, abandoned.get());
    }

    @Test
    void aSessionThatOtherCodeEndedIsAClosedRegistry() {
        new TKVNative().terminateTKV(new TKVResult());
        assertThrows(RegistryClosedException.class, () -> registry.get(top));
        assertThrows(RegistryClosedException.class, () -> registry.exists(top));
        assertThrows(RegistryClosedException.class, () -> registry.put(top, "v"));
    }

    @Test
    void aConfigurationThatIsWrongIsNamed() {
        registry.close();
        try (Configuration broken = new Configuration("[registry]\nwrong\n")) {
            RegistryException failure = assertFails(RegistryException.class, 41, null, Registry::open);
            assertTrue(failure.text().contains(Configuration.file() + ":2"), failure::text);
        }
        registry = Registry.open();
        assertFails(RegistryException.class, 8, null, () -> {
            registry.close();
            Registry.open(-1);
        });
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
            assertEquals("kept", registry.get("kept"));
            storage.makeRoom();
            registry.put("kept", "still writable");
            registry.close();
            registry = Registry.open();
            assertEquals("still writable", registry.get("kept"));
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
            assertFails(RegistryDamagedException.class, 7, "damaged", () -> registry.get("damaged"));
            assertEquals("whole", registry.get("whole"));
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
}
