package velmar.qen.mgmt.registry;

import java.time.Duration;
import java.util.Optional;
import java.util.concurrent.Executor;
import java.util.concurrent.RejectedExecutionException;
import java.util.function.Consumer;

/**
 * A listener that is told of the changes of a key and of what is below it, until this object is closed. Made with {@link
 * Registry#watch}.
 *
 * <p>The listener is called by the executor with one event at a time, in order, whatever number of threads the executor
 * has: the next event is handed over after the listener has returned. Events wait in the registry until then. A listener
 * that falls so far behind that they are no longer retained is told so by a {@link RegistryEvent.Resync}. An exception
 * that the listener throws is logged, and the next event follows.
 *
 * <p>While the registry cannot be reached, the watch tries again. It ends with a {@link RegistryEvent.Failed} if that
 * does not help, and without an event if the registry is closed or the executor refuses a task. A watch that is neither
 * closed nor ended keeps its registry open. It does not keep the process from ending.
 */
public final class Watch implements AutoCloseable {
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");
    private static final Duration WAIT = Duration.ofHours(1);
    private static final long PAUSE_MILLIS = 200;

    private final EventReader events;
    private final Executor executor;
    private final Consumer<? super RegistryEvent> listener;

    /** Guarded by this, which is notified when one of the two changes. */
    private boolean closed;
    /** Whether an event was handed over to the executor and is not yet done with. */
    private boolean delivering;
    /** That the listener was told of. Used by the watch's own thread only. */
    private long revision;

    Watch(EventReader events, long after, Executor executor, Consumer<? super RegistryEvent> listener) {
        this.events = events;
        this.revision = after;
        this.executor = executor;
        this.listener = listener;
    }

    void start() {
        Thread thread = new Thread(this::run, "tkv-watch");
        thread.setDaemon(true);
        thread.start();
    }

    private void run() {
        try {
            deliverAll();
        } catch (RejectedExecutionException refused) {
            LOGGER.log(System.Logger.Level.WARNING, "a watch has ended, because its executor refuses tasks", refused);
        } finally {
            close();
        }
    }

    private void deliverAll() {
        try {
            while (!isClosed()) {
                next().ifPresent(this::deliver);
            }
        } catch (RegistryClosedException end) {
            LOGGER.log(System.Logger.Level.DEBUG, "a watch has ended", end);
        } catch (RegistryException failure) {
            deliver(new RegistryEvent.Failed(revision, failure));
        }
    }

    private Optional<RegistryEvent> next() {
        try {
            return events.next(WAIT);
        } catch (RegistryUnavailableException | RegistryBusyException failure) {
            LOGGER.log(System.Logger.Level.DEBUG, "a watch tries again", failure);
            pause();
            return Optional.empty();
        }
    }

    private synchronized void pause() {
        if (!closed) {
            waitFor(PAUSE_MILLIS);
        }
    }

    /** Has the listener called, and waits until it has returned or the watch is closed. */
    private void deliver(RegistryEvent event) {
        synchronized (this) {
            delivering = true;
        }
        executor.execute(() -> call(event));
        synchronized (this) {
            while (delivering && !closed) {
                waitFor(0);
            }
        }
        revision = event.revision();
    }

    private void call(RegistryEvent event) {
        try {
            if (!isClosed()) {
                listener.accept(event);
            }
        } catch (RuntimeException e) {
            LOGGER.log(System.Logger.Level.WARNING, "a listener has failed at revision " + event.revision(), e);
        } finally {
            synchronized (this) {
                delivering = false;
                notifyAll();
            }
        }
    }

    private void waitFor(long millis) {
        try {
            wait(millis);
        } catch (InterruptedException e) {
            // Only a listener that runs in this thread can have caused it. It ends nothing.
        }
    }

    private synchronized boolean isClosed() {
        return closed;
    }

    /**
     * Ends the watch. No event is handed to the listener from then on, but a call of the listener may still be running.
     * The listener may close its own watch. Closing it again has no effect.
     */
    @Override
    public void close() {
        synchronized (this) {
            closed = true;
            notifyAll();
        }
        events.close();
    }
}
