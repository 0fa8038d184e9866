package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.lang.module.Configuration;
import java.lang.module.ModuleDescriptor;
import java.lang.module.ModuleDescriptor.Requires;
import java.lang.module.ModuleFinder;
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
import java.util.Set;
import java.util.TreeSet;
import java.util.concurrent.Executor;
import java.util.function.Consumer;
import java.util.jar.JarFile;
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

    /** Uses the API as a named module, and prints what the module says of itself. */
    static final class OnTheModulePath {
        private static final String NAME = "velmar.qen.mgmt";

        private OnTheModulePath() {}

        public static void main(String[] arguments) throws IOException, ReflectiveOperationException {
            Path jar = Path.of(System.getProperty("tkv.jar"));
            Configuration modules = ModuleLayer.boot().configuration().resolve(ModuleFinder.of(jar), ModuleFinder.of(),
                                                                               Set.of(NAME));
            ModuleLayer layer = ModuleLayer.boot().defineModulesWithOneLoader(modules, null);
            System.out.println(use(layer.findLoader(NAME)));
            ModuleDescriptor module = layer.findModule(NAME).orElseThrow().getDescriptor();
            System.out.println("open: " + module.isOpen() + ", opens " + module.opens());
            System.out.println("exports " + new TreeSet<>(module.exports()));
            System.out.println("requires " + new TreeSet<>(module.requires().stream().map(Requires::name).toList()));
            try (JarFile file = new JarFile(jar.toFile())) {
                String version = file.getManifest().getMainAttributes().getValue("Implementation-Version");
                System.out.println("same version: " + module.rawVersion().orElseThrow().equals(version));
            }
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
    void theJarIsAModuleThatOpensNothing() throws IOException, InterruptedException {
        assertEquals(List.of("7", "open: false, opens []",
                             "exports [velmar.qen.mgmt.nativesystem, velmar.qen.mgmt.registry]",
                             "requires [java.base, java.prefs]", "same version: true"), run(OnTheModulePath.class));
    }

    @Test
    void aSecondClassLoaderIsToldWhyItCannotLoadTheLibrary() throws IOException, InterruptedException {
        assertEquals(List.of("7", "another class loader of this process has loaded libtkv.so, and a process can load the"
                + " library only once; put tkv.jar where both class loaders find it: on the class path, or in a class"
                + " loader that is a parent of both", "7"), run(Together.class));
    }
}
