package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.lang.ref.WeakReference;
import java.net.MalformedURLException;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.List;
import java.util.Map;
import org.junit.jupiter.api.Test;

/** The classes of the jar in class loaders of their own. */
class ClassLoadersTest extends OpenSession {
    private static URLClassLoader loader() throws MalformedURLException {
        URL jar = Path.of(System.getProperty("tkv.jar")).toUri().toURL();
        return new URLClassLoader(new URL[] {jar}, ClassLoader.getPlatformClassLoader());
    }

    private static Object get(Object result, String getter) throws ReflectiveOperationException {
        return result.getClass().getMethod(getter).invoke(result);
    }

    @Test
    void aResultOfAnotherClassLoaderTakesReports() throws IOException, ReflectiveOperationException {
        try (URLClassLoader loader = loader()) {
            Object result = loader.loadClass(TKVResult.class.getName()).getConstructor().newInstance();
            tkv.openKey("absent", result);
            assertEquals(false, get(result, "getStatus"));
            assertEquals("TKV-0004: key 'absent' does not exist", get(result, "getTKVResultString"));
            tkv.openKey("", result);
            assertEquals(true, get(result, "getStatus"));
        }
    }

    /** Uses the library in a class loader of its own, and waits until that is unloaded. */
    static final class PassingUse {
        private PassingUse() {}

        public static void main(String[] arguments) throws Exception {
            awaitUnloading(use());
            System.out.println("unloaded");
        }

        private static WeakReference<ClassLoader> use() throws Exception {
            try (URLClassLoader loader = loader()) {
                Object tkv = loader.loadClass(TKVNative.class.getName()).getConstructor().newInstance();
                Object result = loader.loadClass(TKVResult.class.getName()).getConstructor().newInstance();
                tkv.getClass().getMethod("initializeTKVLevel", int.class, Object.class).invoke(tkv, 0, result);
                tkv.getClass().getMethod("openKey", String.class, Object.class).invoke(tkv, "absent", result);
                System.out.println(get(result, "getTKVResultString"));
                tkv.getClass().getMethod("terminateTKV", Object.class).invoke(tkv, result);
                System.out.println("status " + get(result, "getStatus"));
                return new WeakReference<>(loader);
            }
        }

        private static void awaitUnloading(WeakReference<ClassLoader> loader) {
            Instant deadline = Instant.now().plus(Duration.ofSeconds(240));
            while (loader.get() != null) {
                if (Instant.now().isAfter(deadline)) {
                    throw new AssertionError("the class loader is still there");
                }
                System.gc();
            }
        }
    }

    @Test
    void theLibraryLetsItsClassLoaderBeUnloaded() throws IOException, InterruptedException {
        ChildJvm.Outcome outcome = ChildJvm.run(List.of("-Dtkv.jar=" + System.getProperty("tkv.jar")), Map.of(),
                                                PassingUse.class);
        assertEquals("TKV-0004: key 'absent' does not exist\nstatus true\nunloaded\n", outcome.output());
        assertEquals(0, outcome.exit());
    }
}
