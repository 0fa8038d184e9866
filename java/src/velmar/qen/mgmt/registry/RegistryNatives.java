package velmar.qen.mgmt.registry;

import java.nio.ByteBuffer;

/**
 * The registry client's operations. They are registered when {@code libtkv.so} is loaded.
 *
 * <p>A registry is identified by the number that {@link #open} returns, and a snapshot of it by that of {@link
 * #beginSnapshot}, which ends with the registry. Names are full names. A reply is null if the
 * call has succeeded and has no result; otherwise, it begins with a result code, and {@link Reply} decodes it. Any
 * thread may call any method at any time, also while another closes the registry.
 */
final class RegistryNatives {
    // Flags, as registry_natives.cpp names them. Do not change one side alone.
    static final int PUT_NEW_ONLY = 1;
    static final int PUT_CREATES_PARENTS = 2;
    static final long COPY_REPLACES = 1;
    static final long COPY_IS_OWN = 2;
    static final long LATEST = -1;

    /** In place of a snapshot: the registry as it is at each call. */
    static final long PRESENT = 0;

    private RegistryNatives() {}

    /** Result: the registry. The request is that of {@link RegistryOptions#request}. */
    static native byte[] open(byte[] request);

    /** Waits for the calls in progress. */
    static native byte[] close(long registry);

    /** Result: user, group, backup location, whether in a cluster, whether shared, count of locations, locations. */
    static native byte[] describe(long registry);

    static native byte[] checkLocation(String location);

    /** Result: the revision of the latest state. */
    static native byte[] revision(long registry);

    /** Result: the snapshot of a revision or of {@link #LATEST}, and its revision. */
    static native byte[] beginSnapshot(long registry, long revision);

    static native void endSnapshot(long registry, long snapshot);

    /** Result: a pin that keeps {@link #stateMemory} readable until {@link #unpinState}, or 0 if there is no such memory. */
    static native byte[] pinState(long registry);

    /**
     * Returns the memory that shows the number of the registry's latest state, or null: the larger of the longs at its
     * beginning and its end, in the machine's byte order; 0 once it is no longer known. It may be one ahead of what
     * reading shows.
     */
    static native ByteBuffer stateMemory(long pin);

    /** Gives the memory back. Nobody may be reading it, or read it again. */
    static native void unpinState(long pin);

    static native byte[] exists(long registry, long snapshot, String name);

    /** Result: type, then the bytes to the end. */
    static native byte[] value(long registry, long snapshot, String name);

    /**
     * Result: the number of the state that was read, or 0 if it is not certain; then, of a key that exists, as for {@link
     * #value}. A number that {@link #stateMemory} still shows proves that nothing has changed since.
     */
    static native byte[] latestValue(long registry, String name);

    /** Result: revision of the key, type, then the bytes to the end; all of one state. */
    static native byte[] read(long registry, long snapshot, String name);

    /** Result: the levels. */
    static native byte[] list(long registry, long snapshot, String name);

    /** Result: the number of the state, as for {@link #latestValue}; then as for {@link #list}. */
    static native byte[] latestList(long registry, String name);

    /** Result: type, size, whether there are subkeys, rights, security; revision, time and author of the last change. */
    static native byte[] stat(long registry, long snapshot, String name);

    /** Result: the rights of the session on the key. */
    static native byte[] rights(long registry, long snapshot, String name);

    /** Result: handle of the rest of the walk, or 0, then entries to the end. */
    static native byte[] beginWalk(long registry, long snapshot, String name, long depth);

    /** Result: as for {@link #beginWalk}. */
    static native byte[] continueWalk(long rest);

    static native void endWalk(long rest);

    /** Result: the watch, which ends with the registry. */
    static native byte[] beginWatch(long registry);

    /** Ends the waiting of the watch as well. */
    static native void endWatch(long registry, long watch);

    /**
     * Returns at once. Result: whether all changes after the revision are retained, and without these there are none; the
     * revision to go on after; then {@link RegistryEvent.Changed changes} to the end, perhaps not all of them.
     */
    static native byte[] changes(long registry, long watch, String name, long depth, long after);

    /** Waits until anything has changed, or the time has passed. Result: the revision of the latest state. */
    static native byte[] await(long registry, long watch, long after, long milliseconds);

    /** Request: flags, security, and then name, type and bytes of any number of values. All or nothing. */
    static native byte[] put(long registry, byte[] request);

    /** Takes a key's value away. */
    static native byte[] clear(long registry, String name);

    /** Request: security. */
    static native byte[] changeSecurity(long registry, String name, byte[] request, long recursive);

    static native byte[] remove(long registry, String name, long recursive);

    static native byte[] move(long registry, String source, String target, long replace);

    static native byte[] copy(long registry, String source, String target, long flags);

    /**
     * Request: that of {@link Batch#commit}. Result, also of a batch that is refused: result code, the first condition
     * that does not hold or -1, the change that cannot be made or -1, revision, then the message to the end.
     */
    static native byte[] commit(long registry, byte[] request);

    static native byte[] recordServiceDependencies(long registry, long mode);
}
