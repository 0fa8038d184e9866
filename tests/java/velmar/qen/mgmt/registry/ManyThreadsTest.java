package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.stream.IntStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** Threads that make all kinds of calls while another thread closes the registry. */
class ManyThreadsTest {
    private static final String USER = System.getProperty("user.name");
    private static final int THREADS = 8;
    private static final int ROUNDS_BEFORE_CLOSING = 50;
    private static final long DEADLINE_SECONDS = 480;

    private final ExecutorService pool = Executors.newFixedThreadPool(THREADS);
    /** Counted down by each worker after its last round before the closing, or when it ends before that. */
    private final CountDownLatch busy = new CountDownLatch(THREADS);
    private final AtomicInteger created = new AtomicInteger();
    private final AtomicInteger added = new AtomicInteger();
    private Registry registry;

    @BeforeEach
    void openRegistry() {
        registry = Registry.open();
        registry.create("threads");
        registry.create("threads.shared");
        registry.create("threads.claimed");
        registry.put("threads.sum", 0);
        for (int i = 0; i < THREADS; i++) {
            registry.put("threads.counter" + i, 0);
        }
    }

    @AfterEach
    void end() {
        pool.shutdownNow();
        registry.close();
    }

    /** Increments its own key and makes other calls until the registry is closed. Returns the last confirmed count. */
    private int work(int thread) {
        Random random = new Random(thread);
        int confirmed = 0;
        try {
            while (true) {
                assertEquals(confirmed, registry.getInt("threads.counter" + thread));
                registry.put("threads.counter" + thread, confirmed + 1);
                confirmed++;
                callAnything(random, thread);
                if (confirmed == ROUNDS_BEFORE_CLOSING) {
                    busy.countDown();
                }
            }
        } catch (RegistryClosedException end) {
            return confirmed;
        } finally {
            if (confirmed < ROUNDS_BEFORE_CLOSING) {
                busy.countDown();
            }
        }
    }

    private void callAnything(Random random, int thread) {
        String shared = "threads.shared.k" + random.nextInt(5);
        try {
            switch (random.nextInt(22)) {
                case 0 -> registry.put(shared, "text");
                case 1 -> assertTrue(isWhole(registry.value(shared)));
                case 2 -> registry.put(shared, List.of("a", "b"));
                case 3 -> registry.setSecurity(shared, KeySecurity.privateToGroup());
                case 4 -> registry.delete(shared);
                case 5 -> registry.list("threads.shared");
                case 6 -> assertTrue(countOfWalk() >= THREADS);
                case 7 -> registry.move(shared, "threads.shared.k" + random.nextInt(5));
                case 8 -> registry.moveReplacing(shared, "threads.shared.k" + random.nextInt(5));
                case 9 -> registry.copy("threads.counter" + thread, "threads.shared.k" + random.nextInt(5));
                case 10 -> assertEquals(USER, registry.owner("threads").orElseThrow());
                case 11 -> assertTrue(registry.group("threads").isPresent());
                case 12 -> claim(random);
                case 13 -> registry.storageAt("/tmp");
                case 14 -> assertEquals(0, registry.patchLevel());
                case 15 -> assertTrue(registry.backupLocation().isEmpty());
                case 16 -> registry.isClusterMember();
                case 17 -> readTwice();
                case 18 -> assertTrue(registry.revision() > 0);
                case 19 -> add();
                case 20 -> registry.batch().ifExists("threads").put(shared, 1).put("threads.shared.k0", 1).commit();
                default -> assertFalse(registry.locations().places().isEmpty());
            }
        } catch (KeyNotFoundException | KeyExistsException race) {
            assertTrue(race.text().startsWith("TKV-00"), race::text);
        } catch (RegistryException intoItself) {
            if (intoItself instanceof RegistryClosedException || intoItself.code() != 17) {
                throw intoItself;
            }
        }
    }

    /** Returns whether a value is one that some thread has written. */
    private static boolean isWhole(Value value) {
        return value instanceof Value.Int32 || value.equals(new Value.Text("text"))
                || value.equals(new Value.TextList(List.of("a", "b")));
    }

    private long countOfWalk() {
        try (Stream<Entry> entries = registry.walk("threads")) {
            return entries.count();
        }
    }

    /** Reads the counters of all threads, which go on counting, and finds the same in the same state. */
    private void readTwice() {
        try (Snapshot state = registry.snapshot()) {
            assertEquals(counters(state), counters(state));
        }
    }

    private void add() {
        registry.update("threads.sum", value -> new Value.Int32(((Value.Int32) value).number() + 1));
        added.incrementAndGet();
    }

    private static List<Integer> counters(RegistryReader state) {
        return IntStream.range(0, THREADS).mapToObj(i -> state.getInt("threads.counter" + i)).toList();
    }

    private void claim(Random random) {
        registry.createWith("threads.claimed.n" + random.nextInt(1_000), "claimed", KeySecurity.privateToUser());
        created.incrementAndGet();
    }

    @Test
    void everyCallEndsInAResultOrInTheClosedExceptionAndNothingIsLost()
            throws InterruptedException, ExecutionException {
        List<Future<Integer>> workers = new ArrayList<>();
        for (int i = 0; i < THREADS; i++) {
            int thread = i;
            workers.add(pool.submit((Callable<Integer>) () -> work(thread)));
        }
        assertTrue(busy.await(DEADLINE_SECONDS, TimeUnit.SECONDS), "every worker gets through its rounds");
        assertTrue(workers.stream().noneMatch(Future::isDone), "nobody ends before the closing");
        Thread otherCloser = new Thread(registry::close);
        otherCloser.start();
        registry.close();
        assertThrows(RegistryClosedException.class, () -> registry.exists(""));
        otherCloser.join();
        List<Integer> confirmed = new ArrayList<>();
        for (Future<Integer> worker : workers) {
            confirmed.add(worker.get());
        }
        assertTrue(confirmed.stream().allMatch(count -> count >= ROUNDS_BEFORE_CLOSING), confirmed::toString);
        registry = Registry.open();
        for (int i = 0; i < THREADS; i++) {
            assertEquals(confirmed.get(i), registry.getInt("threads.counter" + i));
        }
        assertEquals(added.get(), registry.getInt("threads.sum"));
        assertEquals(created.get(), registry.list("threads.claimed").size());
        registry.deleteTree("threads");
    }
}
