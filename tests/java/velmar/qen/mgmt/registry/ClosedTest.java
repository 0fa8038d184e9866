package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.time.Duration;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.TreeSet;
import java.util.concurrent.Executor;
import java.util.function.Consumer;
import java.util.function.UnaryOperator;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;

/** Every method of what has been closed, whatever there will be. */
class ClosedTest extends OpenRegistry {
    /** What does not call the registry: closing again, beginning a batch, and what a snapshot knows of itself. */
    private static final Set<String> STILL_ALLOWED = Set.of("close", "batch", "revision of Snapshot");
    private static final Consumer<RegistryEvent> LISTENER = event -> { };
    private static final Executor EXECUTOR = Runnable::run;
    private static final UnaryOperator<Value> OPERATOR = value -> new Value.Int32(1);
    private static final Map<Class<?>, Object> ARGUMENTS = Map.ofEntries(
            Map.entry(boolean.class, true), Map.entry(int.class, 1), Map.entry(long.class, 1L),
            Map.entry(double.class, 1.0), Map.entry(byte[].class, new byte[1]), Map.entry(String.class, "k"),
            Map.entry(List.class, List.of("a")), Map.entry(Duration.class, Duration.ofSeconds(1)),
            Map.entry(Class.class, Thread.State.class), Map.entry(Enum.class, Thread.State.NEW),
            Map.entry(Value.class, new Value.Int32(1)), Map.entry(KeySecurity.class, KeySecurity.open()),
            Map.entry(CopyOwner.class, CopyOwner.SESSION), Map.entry(Consumer.class, LISTENER),
            Map.entry(Executor.class, EXECUTOR), Map.entry(UnaryOperator.class, OPERATOR));

    private static List<Method> methodsOf(Class<?> type) {
        return Stream.of(type.getMethods())
                .filter(method -> method.getDeclaringClass() != Object.class)
                .filter(method -> !Modifier.isStatic(method.getModifiers()) && !method.isSynthetic())
                .filter(method -> !STILL_ALLOWED.contains(method.getName())
                        && !STILL_ALLOWED.contains(method.getName() + " of " + type.getSimpleName()))
                .toList();
    }

    private static Object call(Object closed, Method method) throws IllegalAccessException {
        Object[] arguments = Stream.of(method.getParameterTypes()).map(ARGUMENTS::get).toArray();
        try {
            method.setAccessible(true);
            return method.invoke(closed, arguments);
        } catch (InvocationTargetException e) {
            return e.getCause();
        }
    }

    private static void assertRefusesAll(Object closed, int atLeast, String message) throws IllegalAccessException {
        List<Method> methods = methodsOf(closed.getClass());
        Set<String> others = new TreeSet<>();
        for (Method method : methods) {
            Object outcome = call(closed, method);
            if (!(outcome instanceof RegistryClosedException refusal) || !refusal.text().equals(message)) {
                others.add(method + ": " + outcome);
            }
        }
        assertEquals(Set.of(), others);
        assertTrue(methods.size() >= atLeast, () -> methods.size() + " methods");
    }

    @Test
    void everyMethodOfAClosedRegistryIsRefused() throws IllegalAccessException {
        registry.put(below("k"), 1);
        assertEquals(1, registry.getInt(below("k")));
        Batch batch = registry.batch().ifExists(top);
        registry.close();
        assertRefusesAll(registry, 75, "TKV-0003: the registry is closed");
        for (Batch each : List.of(batch, registry.batch(), registry.batch().put("k", 1))) {
            assertEquals("TKV-0003: the registry is closed",
                         assertThrows(RegistryClosedException.class, each::commit).text());
        }
    }

    @Test
    void everyMethodOfAClosedSnapshotIsRefused() throws IllegalAccessException {
        Snapshot state = registry.snapshot();
        Snapshot another = registry.at(state.revision());
        state.close();
        assertRefusesAll(state, 30, "TKV-0003: the snapshot is closed");
        assertTrue(another.exists(top));
        registry.close();
        assertRefusesAll(another, 30, "TKV-0003: the registry is closed");
        assertEquals(state.revision(), another.revision());
    }

    @Test
    void aClosedWatchAndItsReaderAreRefused() {
        EventReader events = registry.events(top, 1);
        Watch watch = registry.watch(top, 1, Runnable::run, event -> { });
        registry.close();
        assertThrows(RegistryClosedException.class, () -> events.next(Duration.ZERO));
        events.close();
        events.close();
        watch.close();
        watch.close();
        assertEquals("TKV-0003: the watch is closed", assertThrows(RegistryClosedException.class,
                () -> closedReader().next(Duration.ZERO)).text());
    }

    private EventReader closedReader() {
        registry = Registry.open();
        EventReader events = registry.events(top, 1);
        events.close();
        return events;
    }
}
