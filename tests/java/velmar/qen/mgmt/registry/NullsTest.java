package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.lang.reflect.Constructor;
import java.lang.reflect.Executable;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Set;
import java.util.TreeSet;
import java.util.concurrent.Executor;
import java.util.function.Consumer;
import java.util.function.UnaryOperator;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** What the package promises about null, for every public constructor and method that it has. */
class NullsTest extends OpenRegistry {
    /** The parameters that may be null, as their descriptions say: defaults, and keys of exceptions about none. */
    private static final Set<String> MAY_BE_NULL = Set.of(
            "RegistryReader.getText(String, String) 2", "RegistryReader.getList(String, List) 2",
            "RegistryReader.getBytes(String, byte[]) 2", "RegistryReader.getDuration(String, Duration) 2",
            "RegistryException(int, String, String) 2", "ConflictException(String, String) 1",
            "InvalidNameException(String, String) 1", "KeyExistsException(String, String) 1",
            "KeyNotEmptyException(String, String) 1", "KeyNotFoundException(String, String) 1",
            "MissingRightException(String, String) 1", "RegistryBusyException(String, String) 1",
            "RegistryDamagedException(String, String) 1", "RegistryUnavailableException(String, String) 1",
            "RegistryUnusableException(String, String) 1", "StorageFullException(String, String) 1",
            "UndecidedException(String, String) 1", "ValueTooLargeException(String, String) 1");
    /** What may return null, as its description says. */
    private static final Set<String> MAY_RETURN_NULL = Set.of("RegistryException.key()");
    /** Methods that every enum has. */
    private static final Set<String> OF_ENUMS = Set.of("values", "valueOf");

    /** An argument of each type that is not null. */
    private final Map<Class<?>, Object> arguments = new HashMap<>();
    /** An object of each class that has methods. */
    private final Map<Class<?>, Object> objects = new HashMap<>();
    private EventReader events;
    private Watch watch;
    private Snapshot snapshot;

    @BeforeEach
    void makeObjects() {
        registry.put(below("k"), "v");
        events = registry.events(top, 1);
        watch = registry.watch(top, 1, Runnable::run, event -> { });
        snapshot = registry.snapshot();
        takeArguments();
        takeObjects();
    }

    @AfterEach
    void closeObjects() {
        watch.close();
        events.close();
        snapshot.close();
    }

    private void takeArguments() {
        Consumer<RegistryEvent> listener = event -> { };
        Executor executor = Runnable::run;
        UnaryOperator<Value> operator = value -> value;
        arguments.putAll(Map.ofEntries(
                Map.entry(boolean.class, true), Map.entry(int.class, 1), Map.entry(long.class, 1L),
                Map.entry(double.class, 1.0), Map.entry(byte[].class, new byte[1]), Map.entry(String.class, below("k")),
                Map.entry(List.class, List.of("a")), Map.entry(Set.class, Set.of(Right.READ)),
                Map.entry(Optional.class, Optional.empty()), Map.entry(Duration.class, Duration.ofSeconds(1)),
                Map.entry(Instant.class, Instant.EPOCH), Map.entry(Path.class, Path.of("/nowhere/at/all")),
                Map.entry(Class.class, Thread.State.class), Map.entry(Enum.class, Thread.State.NEW),
                Map.entry(InputStream.class, new ByteArrayInputStream(new byte[0])),
                Map.entry(Consumer.class, listener), Map.entry(Executor.class, executor),
                Map.entry(UnaryOperator.class, operator)));
        arguments.putAll(Map.of(
                Value.class, new Value.Int32(1), ValueType.class, ValueType.TEXT, KeySecurity.class, KeySecurity.open(),
                CopyOwner.class, CopyOwner.SESSION, RegistryOptions.class, RegistryOptions.builder().build(),
                Storage.Kind.class, Storage.Kind.EMBEDDED, KeyChange.Kind.class, KeyChange.Kind.VALUE,
                RegistryException.class, new RegistryException(8, null, "failure")));
    }

    private void takeObjects() {
        KeyChange change = new KeyChange(KeyChange.Kind.VALUE, "k", Optional.empty());
        Entry entry;
        try (Stream<Entry> entries = registry.entries(top)) {
            entry = entries.findFirst().orElseThrow();
        }
        for (Object each : List.of(
                registry, snapshot, events, watch, entry, change, registry.batch(), registry.stat(below("k")),
                registry.locations(), RegistryOptions.builder(), RegistryOptions.builder().build(),
                registry.security(below("k")), Right.READ, CopyOwner.SOURCE, ValueType.TEXT, KeyChange.Kind.VALUE,
                Storage.Kind.EMBEDDED, new Storage(Storage.Kind.EMBEDDED, ""), new Value.Text("a"),
                new Value.TextList(List.of()), new Value.Int32(1), new Value.Int64(1), new Value.Bytes(new byte[1]),
                new Value.None(), new RegistryException(8, null, "failure"), new RegistryEvent.Resync(1),
                new RegistryEvent.Failed(1, new RegistryException(8, null, "failure")),
                new RegistryEvent.Changed(1, Instant.EPOCH, "", "", "", 1, "", List.of(change)),
                new RegistryPreferencesFactory())) {
            objects.put(each.getClass(), each);
        }
        objects.put(RegistryReader.class, registry);
        objects.put(RegistryEvent.class, new RegistryEvent.Resync(1));
        objects.put(Value.class, new Value.None());
    }

    private static List<Class<?>> publicClasses() throws IOException, ClassNotFoundException {
        List<Class<?>> classes = new ArrayList<>();
        String folder = Registry.class.getPackageName().replace('.', '/') + "/";
        try (JarFile jar = new JarFile(System.getProperty("tkv.jar"))) {
            for (JarEntry entry : (Iterable<JarEntry>) jar.stream()::iterator) {
                if (entry.getName().startsWith(folder) && entry.getName().endsWith(".class")
                        && !entry.getName().endsWith("package-info.class")) {
                    classes.add(Class.forName(entry.getName().replace('/', '.').replace(".class", "")));
                }
            }
        }
        classes.removeIf(each -> !isPublic(each));
        return classes;
    }

    private static boolean isPublic(Class<?> type) {
        return Modifier.isPublic(type.getModifiers())
                && (type.getEnclosingClass() == null || isPublic(type.getEnclosingClass()));
    }

    /** Returns what a class declares for its users, and what it has of a class that is not theirs. */
    private static List<Executable> membersOf(Class<?> type) {
        List<Executable> members = new ArrayList<>(List.of(type.getConstructors()));
        for (Method method : type.getMethods()) {
            Class<?> owner = method.getDeclaringClass();
            boolean own = owner == type || owner.getPackage() == type.getPackage() && !isPublic(owner);
            boolean implicit = type.isEnum() && OF_ENUMS.contains(method.getName());
            if (own && !implicit && !method.isSynthetic() && !method.getName().equals("equals")) {
                members.add(method);
            }
        }
        return members;
    }

    private static String signature(Class<?> type, Executable member) {
        String parameters = String.join(", ", Stream.of(member.getParameterTypes()).map(Class::getSimpleName).toList());
        String name = member instanceof Method ? type.getSimpleName() + "." + member.getName() : type.getSimpleName();
        return name + "(" + parameters + ")";
    }

    private Object call(Class<?> type, Executable member, Object[] given) throws IllegalAccessException {
        try {
            member.setAccessible(true);
            if (member instanceof Constructor<?> constructor) {
                return constructor.newInstance(given);
            }
            boolean isStatic = Modifier.isStatic(member.getModifiers());
            return ((Method) member).invoke(isStatic ? null : objects.get(type), given);
        } catch (InvocationTargetException e) {
            return e.getCause();
        } catch (InstantiationException e) {
            throw new AssertionError(e);
        }
    }

    private Object[] argumentsOf(Class<?> type, Executable member) {
        return Stream.of(member.getParameterTypes()).map(each -> {
            Object argument = arguments.get(each);
            assertNotNull(argument, () -> "no argument for " + signature(type, member));
            return argument;
        }).toArray();
    }

    @Test
    void everyNullArgumentIsRefusedAndNothingIsDone() throws IOException, ReflectiveOperationException {
        long revision = registry.revision();
        Set<String> accepting = new TreeSet<>();
        int count = 0;
        for (Class<?> type : publicClasses()) {
            for (Executable member : membersOf(type)) {
                for (int i = 0; i < member.getParameterCount(); i++) {
                    Object[] given = argumentsOf(type, member);
                    given[i] = null;
                    if (!member.getParameterTypes()[i].isPrimitive()
                            && !(call(type, member, given) instanceof NullPointerException)) {
                        accepting.add(signature(type, member) + " " + (i + 1));
                    }
                    count++;
                }
            }
        }
        assertTrue(count > 200, "parameters: " + count);
        assertEquals(new TreeSet<>(MAY_BE_NULL), accepting);
        assertEquals(revision, registry.revision());
    }

    @Test
    void noMethodReturnsNull() throws IOException, ReflectiveOperationException {
        Set<String> returning = new TreeSet<>();
        for (Class<?> type : publicClasses()) {
            for (Executable member : membersOf(type)) {
                if (member instanceof Method method && method.getParameterCount() == 0
                        && method.getReturnType() != void.class) {
                    boolean isStatic = Modifier.isStatic(method.getModifiers());
                    assertTrue(isStatic || objects.get(type) != null || RegistryException.class.isAssignableFrom(type),
                               () -> "no object for " + signature(type, method));
                    Object returned = call(type, method, new Object[0]);
                    if (returned == null) {
                        returning.add(signature(type, method));
                    } else if (returned instanceof AutoCloseable opened) {
                        close(opened);
                    }
                }
            }
        }
        assertEquals(MAY_RETURN_NULL, returning);
    }

    private static void close(AutoCloseable opened) {
        try {
            opened.close();
        } catch (Exception e) {
            throw new AssertionError(e);
        }
    }
}
