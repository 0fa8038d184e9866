package velmar.qen.mgmt.bench;

import java.lang.invoke.VarHandle;

/** Reads, in a thread of its own, from its creation until it is stopped. */
final class BackgroundReader {
    /** The reads are counted in steps, so that counting them does not distort the result. */
    private static final int STEP = 64;

    private final Thread thread;
    private volatile boolean stops;
    private volatile long count;
    private volatile Exception failure;

    BackgroundReader(Scenario.Operation read) {
        thread = new Thread(() -> readOn(read), "background reader");
        thread.setDaemon(true);
        thread.start();
    }

    private void readOn(Scenario.Operation read) {
        Object last = null;
        try {
            for (long done = 0; !stops; count = done) {
                for (int i = 0; i < STEP; i++) {
                    last = read.run();
                    VarHandle.fullFence();  // that of a write to the sink, for which several threads would contend
                }
                done += STEP;
            }
        } catch (Exception e) {
            failure = e;
        }
        Stopwatch.sink = last;
    }

    /** Returns how many reads there have been. */
    long count() {
        return count;
    }

    /** Ends the thread, and throws the exception that has ended it earlier, if one has. */
    void stop() throws Exception {
        stops = true;
        thread.join();
        if (failure != null) {
            throw failure;
        }
    }
}
