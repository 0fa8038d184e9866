package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
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
import org.junit.jupiter.api.Test;

/** Threads that read without a pause beside a thread that writes. */
class ReadersAndWriterTest extends OpenRegistry {
    private static final int READERS = 8;
    private static final int WRITES = 50;
    /** Far more than go on during a durable write, and far fewer than a writer without a turn would see. */
    private static final long READS_FOR_EACH_WRITE = 500_000;

    private final AtomicBoolean done = new AtomicBoolean();
    private final AtomicLong reads = new AtomicLong();
    private final CountDownLatch reading = new CountDownLatch(READERS);

    /** Reads until the writer has finished. Returns the last count that it read. */
    private int readOn(String name) {
        int last = 0;
        reading.countDown();
        while (!done.get()) {
            int count = registry.getInt(name);
            assertTrue(count >= last, () -> "a count goes back");
            last = count;
            reads.incrementAndGet();
        }
        return registry.getInt(name);
    }

    @Test
    void aWriterGetsItsTurnsAmongThreadsThatReadWithoutPause() throws InterruptedException, ExecutionException {
        String name = below("count");
        registry.put(name, 0);
        ExecutorService pool = Executors.newFixedThreadPool(READERS);
        try {
            List<Future<Integer>> readers = new ArrayList<>();
            for (int i = 0; i < READERS; i++) {
                readers.add(pool.submit(() -> readOn(name)));
            }
            reading.await();
            long before = reads.get();
            for (int count = 1; count <= WRITES; count++) {
                registry.put(name, count);
                assertEquals(count, registry.getInt(name));
            }
            long meanwhile = reads.get() - before;
            done.set(true);
            for (Future<Integer> reader : readers) {
                assertEquals(WRITES, reader.get());
            }
            assertTrue(meanwhile / WRITES < READS_FOR_EACH_WRITE, () -> meanwhile / WRITES + " reads for each write");
        } finally {
            done.set(true);
            pool.shutdown();
        }
    }
}
