package velmar.qen.mgmt.registry;

import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.time.Duration;
import java.util.ArrayDeque;
import java.util.Objects;
import java.util.Optional;
import java.util.Queue;

/**
 * The changes of a key and of what is below it, for a program that asks for them. Made with {@link Registry#events}.
 *
 * <pre>{@code
 * try (EventReader events = registry.events("app", 1)) {
 *     while (running) {
 *         events.next(Duration.ofMinutes(1)).ifPresent(this::handle);
 *     }
 * }
 * }</pre>
 *
 * <p>What was changed between two calls is not lost: the registry keeps it. A program that falls so far behind that it is
 * no longer retained is told so by a {@link RegistryEvent.Resync}. An open reader takes nothing of the registry.
 *
 * <p>Any thread may call any method at any time; threads that wait for events take turns. After {@link #close}, and after
 * the registry has been closed, {@link #next} throws {@link RegistryClosedException}, also if it is waiting then.
 */
public final class EventReader implements AutoCloseable {
    private final Registry registry;
    private final long handle;
    private final String name;
    private final long depth;
    private final Cleaner.Cleanable cleanable;

    /** Held while events are read, and while one thread waits for more. */
    private final Object reading = new Object();
    /** Guarded by reading. */
    private final Queue<RegistryEvent> ready = new ArrayDeque<>();
    /** The revision up to which changes have been read. Guarded by reading. */
    private long after;

    EventReader(Registry registry, String name, int depth, long after) {
        this.registry = registry;
        this.name = name;
        this.depth = depth;
        this.after = after;
        long owner = registry.registry;
        try {
            handle = Reply.checked(RegistryNatives.beginWatch(owner), null).word64();
        } finally {
            Reference.reachabilityFence(registry);
        }
        long watch = handle;
        cleanable = NativeReader.CLEANER.register(this, () -> RegistryNatives.endWatch(owner, watch));
    }

    /** Reads what there is, which finds out whether the arguments are valid. */
    EventReader begun() {
        try {
            synchronized (reading) {
                read();
            }
            return this;
        } catch (RuntimeException | Error e) {
            close();
            throw e;
        }
    }

    /**
     * Returns the next event, and waits for it if there is none yet. Interrupting the thread does not end the waiting,
     * but closing this object does.
     *
     * @param timeout how long to wait at most, not counting the time until other threads have their events; not at all if
     *     it is zero or less
     * @return the event; empty if there was none in time
     * @throws RegistryUnavailableException if the registry cannot be reached; the next call tries again, and no event is
     *     lost
     * @throws RegistryClosedException if the reader or the registry is closed
     */
    public Optional<RegistryEvent> next(Duration timeout) {
        Objects.requireNonNull(timeout, "timeout");
        long begin = System.nanoTime();
        long nanos = nanosOf(timeout);
        synchronized (reading) {
            try {
                boolean mayWait = true;
                while (ready.isEmpty() && mayWait) {
                    read();
                    mayWait = ready.isEmpty() && await(nanos - (System.nanoTime() - begin));
                }
            } finally {
                Reference.reachabilityFence(this);
            }
            return Optional.ofNullable(ready.poll());
        }
    }

    private static long nanosOf(Duration timeout) {
        try {
            return timeout.toNanos();
        } catch (ArithmeticException e) {
            return timeout.isNegative() ? 0 : Long.MAX_VALUE;
        }
    }

    /** Reads the changes that are there, or as many as one call returns. */
    private void read() {
        DataReader changes = Reply.checked(RegistryNatives.changes(registry.registry, handle, name, depth, after), name);
        boolean complete = changes.flag();
        after = changes.word64();
        if (!complete) {
            ready.add(new RegistryEvent.Resync(after));
        }
        while (!changes.atEnd()) {
            ready.add(RegistryEvent.Changed.read(changes));
        }
    }

    /** Waits until anything has changed. Returns whether it has. */
    private boolean await(long nanos) {
        if (nanos <= 0) {
            return false;
        }
        long millis = (nanos - 1) / 1_000_000 + 1;
        byte[] reply = RegistryNatives.await(registry.registry, handle, after, millis);
        return Reply.checked(reply, null).word64() > after;
    }

    /** Ends the reading, and the waiting of a thread in {@link #next}. Closing it again has no effect. */
    @Override
    public void close() {
        cleanable.clean();
        Reference.reachabilityFence(registry);
    }
}
