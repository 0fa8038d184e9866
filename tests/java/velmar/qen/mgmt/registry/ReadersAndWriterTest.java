package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.Consumer;
import java.util.function.IntConsumer;
import java.util.function.LongSupplier;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.EnumSource;

/**
 * Threads that read without a pause beside a thread that changes something. They read until it has finished, unless it
 * is overtaken without end: then they stop, and the test fails instead of waiting for ever.
 */
class ReadersAndWriterTest extends OpenRegistry {
    private static final int READERS = 16;
    private static final int STEPS = 20;
    private final ExecutorService pool = Executors.newFixedThreadPool(READERS);
    private final CountDownLatch reading = new CountDownLatch(READERS);
    private final AtomicBoolean done = new AtomicBoolean();
    private final AtomicLong overtakings = new AtomicLong();

    @AfterEach
    void endPool() {
        done.set(true);
        pool.shutdown();
    }

    /** What readers do without a pause. */
    private enum Reading {
        /** From memory, as long as nothing changes. */
        VALUES(1_000_000_000, test -> test.registry.getInt(test.below("count"))),
        // In native code, each time.
        KEYS(20_000_000, test -> test.registry.stat(test.below("count"))),
        ABSENT_KEYS(20_000_000, test -> test.registry.exists(test.below("absent"))),
        LISTS(1_000_000_000, test -> test.registry.list(test.top)),
        WALKS(20_000_000, test -> test.registry.entries(test.below("small")).close()),
        SNAPSHOTS(20_000_000, test -> test.registry.snapshot().close());

        /** Of all threads during one step: as many as take far longer than a disk or a processor can keep it waiting. */
        private final long mostOvertakings;
        private final Consumer<ReadersAndWriterTest> read;

        Reading(long mostOvertakings, Consumer<ReadersAndWriterTest> read) {
            this.mostOvertakings = mostOvertakings;
            this.read = read;
        }
    }

    /** Reads until the writer has finished. Returns whether it was overtaken too often. */
    private boolean readOn(Reading kind) {
        reading.countDown();
        while (!done.get()) {
            kind.read.accept(this);
            if (overtakings.incrementAndGet() > kind.mostOvertakings) {
                return true;
            }
        }
        return false;
    }

    private void changeBeside(Reading kind, IntConsumer step) throws InterruptedException, ExecutionException {
        registry.put(below("count"), 0);
        registry.create(below("small"));
        List<Future<Boolean>> readers = new ArrayList<>();
        for (int i = 0; i < READERS; i++) {
            readers.add(pool.submit(() -> readOn(kind)));
        }
        reading.await();
        for (int number = 1; number <= STEPS; number++) {
            overtakings.set(0);
            step.accept(number);
        }
        done.set(true);
        for (Future<Boolean> reader : readers) {
            assertFalse(reader.get(), "a step was overtaken by " + kind.mostOvertakings + " reads");
        }
    }

    @ParameterizedTest
    @EnumSource(Reading.class)
    void aWriterGetsItsTurns(Reading kind) throws InterruptedException, ExecutionException {
        changeBeside(kind, number -> {
            registry.put(below("count"), number);
            assertEquals(number, registry.getInt(below("count")));
        });
    }

    /** What readers have found out about the tree then no longer holds. */
    @ParameterizedTest
    @EnumSource(Reading.class)
    void aWriterThatRemovesKeysGetsItsTurns(Reading kind) throws InterruptedException, ExecutionException {
        changeBeside(kind, number -> {
            registry.create(below("k" + number));
            registry.delete(below("k" + number));
        });
    }

    /** That changes the tables of what is open, in which each call looks up its registry and its snapshot. */
    @ParameterizedTest
    @EnumSource(Reading.class)
    void aThreadThatOpensAndClosesGetsItsTurns(Reading kind) throws InterruptedException, ExecutionException {
        changeBeside(kind, number -> {
            try (Registry another = Registry.open(); Snapshot state = another.snapshot()) {
                assertTrue(state.exists(top));
            }
        });
    }

    @Test
    void aThreadThatOpensAndClosesWatchesGetsItsTurns() throws InterruptedException, ExecutionException {
        changeBeside(Reading.KEYS, number -> registry.events(top, 1).close());
    }

    @Test
    void valuesThatAreReadNeverGoBack() throws InterruptedException, ExecutionException {
        readGrowingNumbers(() -> registry.getInt(below("count")));
    }

    @Test
    void revisionsThatAreReadNeverGoBack() throws InterruptedException, ExecutionException {
        readGrowingNumbers(() -> registry.stat(below("count")).revision());
    }

    private void readGrowingNumbers(LongSupplier number) throws InterruptedException, ExecutionException {
        registry.put(below("count"), 0);
        List<Future<Long>> readers = new ArrayList<>();
        for (int i = 0; i < READERS; i++) {
            readers.add(pool.submit(() -> lastOf(number)));
        }
        reading.await();
        long before = number.getAsLong();
        for (int value = 1; value <= STEPS; value++) {
            registry.put(below("count"), value);
            long after = number.getAsLong();
            assertTrue(before < after, "a change is not seen");
            before = after;
        }
        done.set(true);
        for (Future<Long> reader : readers) {
            assertEquals(before, reader.get());
        }
    }

    private long lastOf(LongSupplier growing) {
        long last = 0;
        reading.countDown();
        while (!done.get()) {
            long number = growing.getAsLong();
            assertTrue(number >= last, "a number goes back");
            last = number;
        }
        return growing.getAsLong();
    }
}
