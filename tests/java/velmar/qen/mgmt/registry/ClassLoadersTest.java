package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.lang.ref.WeakReference;
import java.lang.reflect.InvocationTargetException;
import java.net.MalformedURLException;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.List;
import java.util.Map;
import java.util.concurrent.Executor;
import java.util.function.Consumer;
import org.junit.jupiter.api.Test;
import velmar.qen.mgmt.nativesystem.ChildJvm;

/** The library in several class loaders. Each test has a JVM of its own, whose main class has not loaded it. */
class ClassLoadersTest {
    /** A class loader with a copy of the API that it shares with nobody. */
    private static ClassLoader fresh() throws MalformedURLException {
        URL jar = Path.of(System.getProperty("tkv.jar")).toUri().toURL();
        return new URLClassLoader(new URL[] {jar}, ClassLoader.getPlatformClassLoader());
    }

    /** Writes to a registry, watches it, and reads from a snapshot of it, through reflection. */
    private static Object use(ClassLoader loader) throws ReflectiveOperationException {
        Class<?> type = loader.loadClass("velmar.qen.mgmt.registry.Registry");
        try (AutoCloseable registry = (AutoCloseable) type.getMethod("temporary").invoke(null)) {
            type.getMethod("put", String.class, int.class).invoke(registry, "k", 7);
            Executor direct = Runnable::run;
            Consumer<Object> listener = event -> { };
            try (AutoCloseable watch = (AutoCloseable) type.getMethod("watch", String.class, int.class, Executor.class,
                                                                      Consumer.class)
                         .invoke(registry, "", 1, direct, listener);
                 AutoCloseable state = (AutoCloseable) type.getMethod("snapshot").invoke(registry)) {
                return state.getClass().getMethod("getInt", String.class).invoke(state, "k");
            }
        } catch (ReflectiveOperationException e) {
            throw e;
        } catch (Exception e) {
            throw new IllegalStateException(e);
        }
    }

    /** Uses the API in one class loader after another; each is collected before the next one is made. */
    static final class OneAfterAnother {
        private OneAfterAnother() {}

        public static void main(String[] arguments) throws IOException, ReflectiveOperationException {
            for (int i = 0; i < 5; i++) {
                WeakReference<ClassLoader> loader = new WeakReference<>(used());
                Instant deadline = Instant.now().plus(Duration.ofSeconds(20));
                while (loader.get() != null && Instant.now().isBefore(deadline)) {
                    System.gc();
                }
                System.out.println(loader.get() == null ? "collected" : "kept");
            }
        }

        private static ClassLoader used() throws IOException, ReflectiveOperationException {
            ClassLoader loader = fresh();
            System.out.println(use(loader));
            return loader;
        }
    }

    /** Uses the API in two class loaders at once. The second one is told of another place for the library. */
    static final class Together {
        private Together() {}

        public static void main(String[] arguments) throws IOException, ReflectiveOperationException {
            ClassLoader first = fresh();
            System.out.println(use(first));
            System.clearProperty("tkv.library.path");
            try {
                use(fresh());
            } catch (InvocationTargetException e) {
                System.out.println(e.getCause().getMessage().replaceAll("/\\S*/", ""));
            }
            System.out.println(use(first));
        }
    }

    private static List<String> run(Class<?> main) throws IOException, InterruptedException {
        ChildJvm.Outcome outcome = ChildJvm.run(List.of("-Dtkv.jar=" + System.getProperty("tkv.jar")), Map.of(), main);
        assertEquals(0, outcome.exit(), outcome.output());
        return outcome.output().lines().toList();
    }

    @Test
    void classLoadersAreCollectedAndTheNextOneLoadsTheLibraryAgain() throws IOException, InterruptedException {
        assertEquals(List.of("7", "collected", "7", "collected", "7", "collected", "7", "collected", "7", "collected"),
                     run(OneAfterAnother.class));
    }

    @Test
    void aSecondClassLoaderIsToldWhyItCannotLoadTheLibrary() throws IOException, InterruptedException {
        assertEquals(List.of("7", "another class loader of this process has loaded libtkv.so, and a process can load the"
                + " library only once; put tkv.jar where both class loaders find it: on the class path, or in a class"
                + " loader that is a parent of both", "7"), run(Together.class));
    }
}
