package velmar.qen.mgmt.bench;

/** A second reader, in a thread of its own, from its creation until it is stopped. */
final class BackgroundReader {
    private final Thread thread;
    private volatile boolean stops;
    private volatile Exception failure;

    BackgroundReader(Scenario.Operation read) {
        thread = new Thread(() -> readOn(read), "second reader");
        thread.setDaemon(true);
        thread.start();
    }

    private void readOn(Scenario.Operation read) {
        try {
            while (!stops) {
                read.run();
            }
        } catch (Exception e) {
            failure = e;
        }
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
