package velmar.qen.mgmt.bench;

import java.util.concurrent.TimeUnit;
import java.util.function.LongSupplier;

/** Measures an operation: a warm-up, then windows of time, each of which yields one mean. */
final class Stopwatch {
    /** The clock is read about this often, so that reading it does not distort the result. */
    private static final long BATCH_NANOS = 200_000;

    /** Receives the result of every operation, so that the compiler cannot prove it unused. */
    static volatile Object sink;

    private final long warmUpNanos;
    private final long windowNanos;
    private final int windows;

    Stopwatch(long warmUpNanos, long windowNanos, int windows) {
        this.warmUpNanos = warmUpNanos;
        this.windowNanos = windowNanos;
        this.windows = windows;
    }

    /** Repeats an operation for as long as the warm-up takes. */
    void warmUp(Scenario.Operation operation) throws Exception {
        meanDuring(operation, warmUpNanos, 1);
    }

    /** Returns the means of the windows, in nanoseconds for each operation. */
    double[] nanosOf(Scenario.Operation operation) throws Exception {
        double warm = meanDuring(operation, warmUpNanos, 1);
        int runs = (int) Math.max(1, Math.min(1_000_000, BATCH_NANOS / Math.max(warm, 1)));
        int batch = operation.size() == 1 ? runs : 1;
        double[] means = new double[windows];
        for (int window = 0; window < windows; window++) {
            means[window] = meanDuring(operation, windowNanos, batch);
        }
        return means;
    }

    /**
     * Returns the means of the windows, in nanoseconds from one operation of any thread to the next. {@code count}
     * returns how many operations other threads have made so far.
     */
    double[] nanosBetween(LongSupplier count) throws InterruptedException {
        meanBetween(count, warmUpNanos);
        double[] means = new double[windows];
        for (int window = 0; window < windows; window++) {
            means[window] = meanBetween(count, windowNanos);
        }
        return means;
    }

    /**
     * Counts, for each window, the operations that have ended in it. {@code begin} is a time of
     * {@link System#nanoTime}, which is one clock for all processes of a machine: those that are given the same
     * {@code begin} have the same windows.
     */
    long[] countsSince(long begin, Scenario.Operation operation) throws Exception {
        long[] counts = new long[windows];
        for (;;) {
            sink = operation.run();
            long window = Math.floorDiv(System.nanoTime() - begin - warmUpNanos, windowNanos);
            if (window >= windows) {
                return counts;
            }
            if (window >= 0) {
                counts[(int) window]++;
            }
        }
    }

    private static double meanBetween(LongSupplier count, long nanos) throws InterruptedException {
        long before = count.getAsLong();
        long start = System.nanoTime();
        TimeUnit.NANOSECONDS.sleep(nanos);
        long done = count.getAsLong() - before;
        return (double) (System.nanoTime() - start) / Math.max(done, 1);
    }

    private static double meanDuring(Scenario.Operation operation, long nanos, int batch) throws Exception {
        long count = 0;
        long elapsed = 0;
        do {
            operation.prepare();
            long start = System.nanoTime();
            for (int i = 0; i < batch; i++) {
                sink = operation.run();
            }
            elapsed += System.nanoTime() - start;
            count += (long) batch * operation.size();
        } while (elapsed < nanos);
        return (double) elapsed / count;
    }
}
