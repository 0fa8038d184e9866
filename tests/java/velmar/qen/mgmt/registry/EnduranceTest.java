package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.IntConsumer;
import java.util.prefs.Preferences;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import velmar.qen.mgmt.nativesystem.Configuration;

/** What must hold however long a process runs. The memory is that of an embedded registry, for the sake of time. */
class EnduranceTest {
    /** Of each kind; a tenth of it warms up. */
    private static final int OPERATIONS = Integer.getInteger("tkv.operations", 4_000);
    /** How long the threads open and close. */
    private static final Duration TIME = Duration.ofSeconds(Integer.getInteger("tkv.seconds", 2));
    /** In all operations of one kind; in a long run, less than the smallest allocation for each. */
    private static final long MOST_GROWTH = 16L << 20;
    private static final int THREADS = 16;
    /** Ends in a wait for the kernel. Made by several threads at once, a million of them take minutes, not an hour. */
    private static final String WAITING = "watch";
    private static final int WAITING_THREADS = 4;
    /** Characters in a value of which native code hands over a few at a time. */
    private static final int LARGE = 40_000;

    @TempDir
    private Path directory;

    private static long residentBytes() throws IOException {
        System.gc();
        String pages = Files.readString(Path.of("/proc/self/statm")).split(" ")[1];
        return Long.parseLong(pages) * 4_096;
    }

    private Map<String, Runnable> kinds(Registry registry, Path place) {
        Map<String, Runnable> kinds = new LinkedHashMap<>();
        kinds.put("read", () -> registry.getText("a.text"));
        kinds.put("read of an absent key", () -> registry.findText("a.absent"));
        kinds.put("list", () -> registry.list("a"));
        kinds.put("existence", () -> registry.exists("a.other"));
        kinds.put("stat", () -> registry.stat("a.text"));
        kinds.put("rights", () -> registry.rights("a.text"));
        kinds.put("description", () -> registry.storageAt(registry.locations().places().get(0)));
        kinds.put("walk", () -> {
            try (Stream<Entry> entries = registry.walk("a")) {
                assertEquals(2, entries.count());
            }
        });
        kinds.put("walk that is abandoned", () -> registry.walk("a").close());
        kinds.put("walk that is abandoned with a rest", () -> {
            Stream<Entry> entries = registry.walk("large");
            assertTrue(entries.iterator().hasNext());
            entries.close();
        });
        kinds.put("former state", () -> {
            try (Snapshot state = registry.at(registry.revision())) {
                assertEquals(List.of("number", "text"), state.list("a"));
                assertTrue(state.exists("a.text"));
            }
        });
        kinds.put("snapshot", () -> {
            try (Snapshot state = registry.snapshot()) {
                assertEquals("text", state.getText("a.text"));
            }
        });
        AtomicInteger abandoned = new AtomicInteger();
        kinds.put("snapshot that is abandoned", () -> {
            registry.snapshot();
            // The collector closes it, but is in no hurry: it does not know of the native memory that it holds.
            if (abandoned.incrementAndGet() % 10_000 == 0) {
                System.gc();
            }
        });
        kinds.put("event", () -> {
            try (EventReader events = registry.events("a", 1)) {
                registry.put("a.number", 1);
                assertTrue(events.next(Duration.ofMinutes(4)).isPresent());
            }
        });
        kinds.put(WAITING, () -> registry.watch("a", 1, Runnable::run, event -> { }).close());
        kinds.put("write", () -> registry.put("a.number", 1));
        kinds.put("value that is taken away", () -> {
            registry.put("a.number", new Value.None());
            registry.put("a.number", 1);
        });
        kinds.put("security", () -> registry.setSecurity("a.text", KeySecurity.privateToUser()));
        kinds.put("batch", () -> registry.batch().ifExists("a").put("a.number", 1).put("a.text", "text").commit());
        kinds.put("conflict", () -> {
            try {
                registry.batch().ifAbsent("a").put("a.text", "new").commit();
            } catch (ConflictException e) {
                assertEquals("a", e.key());
            }
        });
        kinds.put("update", () -> registry.update(
                "a.number", value -> new Value.Int32(((Value.Int32) value).number() + 1)));
        kinds.put("creation and deletion", () -> {
            registry.create("a.new", KeySecurity.privateToUser());
            registry.delete("a.new");
        });
        kinds.put("copy and move", () -> {
            registry.copy("a", "b");
            registry.move("b", "c");
            registry.deleteTree("c");
        });
        kinds.put("failure", () -> {
            try {
                registry.create("a");
            } catch (KeyExistsException e) {
                assertEquals("a", e.key());
            }
        });
        kinds.put("opening of a registry that is open", () -> Registry.at(place).close());
        kinds.put("opening", () -> Registry.at(place.resolve("other")).close());
        Preferences root = new RegistryPreferences(PreferencesTree.ofUser(() -> registry));
        kinds.put("preference", () -> {
            root.node("n").put("k", "v");
            assertEquals("v", root.node("n").get("k", null));
        });
        return kinds;
    }

    @Test
    @Tag("memory")
    void memoryDoesNotGrow() throws IOException, InterruptedException, ExecutionException {
        // In memory, where that is possible: durable writes would take hours.
        Path base = Files.isWritable(Path.of("/dev/shm")) ? Path.of("/dev/shm") : directory;
        Path place = Files.createTempDirectory(base, "tkv-endurance");
        try (Registry registry = Registry.at(place)) {
            registry.ensure("a");
            registry.put("a.text", "text");
            registry.put("a.number", 1);
            registry.batch().createParents().put("large.a", "x".repeat(LARGE)).put("large.b", "x".repeat(LARGE))
                    .put("large.c", "x".repeat(LARGE)).commit();
            for (Map.Entry<String, Runnable> kind : kinds(registry, place).entrySet()) {
                int threads = kind.getKey().equals(WAITING) ? WAITING_THREADS : 1;
                repeat(kind.getValue(), Math.max(OPERATIONS / 10, 1_000), threads);
                long before = residentBytes();
                repeat(kind.getValue(), OPERATIONS, threads);
                long growth = residentBytes() - before;
                assertTrue(growth < MOST_GROWTH, () -> kind.getKey() + ": " + growth + " bytes");
            }
        } finally {
            new TemporaryDirectory(place).remove();
        }
    }

    /** One thread is the caller's own, so that what an allocator keeps for a thread is there after the warm-up. */
    private static void repeat(Runnable operation, int times, int threads)
            throws InterruptedException, ExecutionException {
        IntConsumer share = thread -> {
            for (int i = thread; i < times; i += threads) {
                operation.run();
            }
        };
        if (threads == 1) {
            share.accept(0);
        } else {
            inThreads(threads, share);
        }
    }

    /** Runs a task in several threads, with the number of the thread, and waits for all of them. */
    private static void inThreads(int threads, IntConsumer task) throws InterruptedException, ExecutionException {
        List<Callable<Object>> tasks = new ArrayList<>();
        for (int i = 0; i < threads; i++) {
            int thread = i;
            tasks.add(Executors.callable(() -> task.accept(thread)));
        }
        ExecutorService pool = Executors.newFixedThreadPool(threads);
        try {
            for (Future<Object> each : pool.invokeAll(tasks)) {
                each.get();
            }
        } finally {
            pool.shutdown();
        }
    }

    @Test
    void threadsOpenAndCloseInAnyOrder() throws InterruptedException, ExecutionException {
        Registry[] shared = new Registry[4];
        for (int i = 0; i < shared.length; i++) {
            shared[i] = open(i);
        }
        long start = System.nanoTime();
        try {
            inThreads(THREADS, thread -> {
                Random random = new Random(thread);
                do {
                    openAndClose(shared, random);
                } while (System.nanoTime() - start < TIME.toNanos());
            });
        } finally {
            for (Registry registry : shared) {
                registry.close();
            }
        }
    }

    /** Opens one of two embedded registries, or that of the cluster. */
    private Registry open(int place) {
        return Configuration.onCluster() ? Registry.open() : Registry.at(directory.resolve("r" + place % 2));
    }

    private void openAndClose(Registry[] shared, Random random) {
        int place = random.nextInt(shared.length);
        Registry registry;
        synchronized (shared) {
            registry = shared[place];
        }
        try {
            registry.exists("k");
            registry.put("k", random.nextInt());
            registry.getInt("k");
            try (Snapshot state = registry.snapshot(); EventReader events = registry.events("k", 0)) {
                state.getInt("k");
                events.next(Duration.ZERO);
            }
        } catch (RegistryClosedException closed) {
            assertEquals(3, closed.code());
        }
        if (random.nextInt(8) == 0) {
            Registry fresh = open(place);
            Registry former;
            synchronized (shared) {
                former = shared[place];
                shared[place] = fresh;
            }
            former.close();
        }
    }
}
