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
import java.util.function.LongSupplier;
import org.junit.jupiter.api.Test;

/** Threads that read without a pause beside a thread that writes. */
class ReadersAndWriterTest extends OpenRegistry {
    private static final int READERS = 16;
    private static final int WRITES = 50;
    /** Far more than go on during a durable write, and far fewer than a writer without a turn would see. */
    private static final long READS_FOR_EACH_WRITE = 500_000;

    private final AtomicBoolean done = new AtomicBoolean();
    private final AtomicLong reads = new AtomicLong();
    private final CountDownLatch reading = new CountDownLatch(READERS);

    /** Reads until the writer has finished. Returns the last number that it read. */
    private long readOn(LongSupplier read) {
        long last = 0;
        reading.countDown();
        while (!done.get()) {
            long number = read.getAsLong();
            assertTrue(number >= last, () -> "a number goes back");
            last = number;
            reads.incrementAndGet();
        }
        return read.getAsLong();
    }

    /** Writes a key beside readers of something that grows with it. Returns how many reads there were meanwhile. */
    private long writeBeside(LongSupplier read, String name) throws InterruptedException, ExecutionException {
        registry.put(name, 0);
        ExecutorService pool = Executors.newFixedThreadPool(READERS);
        try {
            List<Future<Long>> readers = new ArrayList<>();
            for (int i = 0; i < READERS; i++) {
                readers.add(pool.submit(() -> readOn(read)));
            }
            reading.await();
            long before = reads.get();
            for (int count = 1; count <= WRITES; count++) {
                registry.put(name, count);
                assertEquals(count, registry.getInt(name));
            }
            long meanwhile = reads.get() - before;
            done.set(true);
            for (Future<Long> reader : readers) {
                assertEquals(read.getAsLong(), reader.get());
            }
            return meanwhile;
        } finally {
            done.set(true);
            pool.shutdown();
        }
    }

    @Test
    void aWriterGetsItsTurnsAmongThreadsThatReadWithoutPause() throws InterruptedException, ExecutionException {
        String name = below("count");
        long meanwhile = writeBeside(() -> registry.stat(name).revision(), name);
        assertTrue(meanwhile / WRITES < READS_FOR_EACH_WRITE, () -> meanwhile / WRITES + " reads for each write");
    }

    @Test
    void aWriterGetsItsTurnsAmongThreadsThatReadWhatTheyKnow() throws InterruptedException, ExecutionException {
        String name = below("count");
        writeBeside(() -> registry.getInt(name), name);
        assertEquals(WRITES, registry.getInt(name));
    }
}
