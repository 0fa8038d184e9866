package velmar.qen.mgmt.registry;

import java.lang.ref.Cleaner;
import java.lang.ref.Reference;

/**
 * One state of a registry, past or present. All methods read that state, whatever is changed meanwhile.
 *
 * <pre>{@code
 * try (Snapshot state = registry.snapshot()) {
 *     String host = state.getText("app.host");
 *     int port = state.getInt("app.port");
 * }
 * }</pre>
 *
 * <p>A snapshot blocks nobody and takes no space in the registry. Its state can therefore cease to be retained while the
 * snapshot is open, after as many changes or as much time as the configuration says. From then on, reading throws a
 * {@link RegistryException} with code 8. A program that meets it begins again with a new snapshot.
 *
 * <p>Reading a former state needs each right twice: in that state, and today on the key that has its name now, if there
 * is one. {@link #stat} and {@link #rights} return what was so in that state.
 *
 * <p>Any thread may call any method at any time. After {@link #close}, and after the registry has been closed, methods
 * throw {@link RegistryClosedException}.
 */
public final class Snapshot extends NativeReader implements AutoCloseable {
    /** Keeps the registry from being collected, and thereby closed. */
    private final Registry from;
    private final long revision;
    private final Cleaner.Cleanable cleanable;

    Snapshot(Registry from, long wanted) {
        this(from, begin(from, wanted));
    }

    private Snapshot(Registry from, DataReader begun) {
        this(from, begun.word64(), begun.word64());
    }

    private Snapshot(Registry from, long handle, long revision) {
        super(from.registry, handle);
        this.from = from;
        this.revision = revision;
        long owner = from.registry;
        cleanable = CLEANER.register(this, () -> RegistryNatives.endSnapshot(owner, handle));
    }

    private static DataReader begin(Registry from, long wanted) {
        try {
            return Reply.checked(RegistryNatives.beginSnapshot(from.registry, wanted), null);
        } finally {
            Reference.reachabilityFence(from);
        }
    }

    /**
     * Returns the number of the last change that is part of this state.
     *
     * @return the revision
     */
    public long revision() {
        return revision;
    }

    /** Closes the snapshot. Closing it again has no effect. Streams that were opened before can still be read. */
    @Override
    public void close() {
        cleanable.clean();
        Reference.reachabilityFence(from);
    }
}
