package velmar.qen.mgmt.registry;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/**
 * The number of a registry's latest state, read from memory that all processes share. Every change that has been
 * acknowledged to anybody is part of the state of this number or of one before it. Any thread may read it.
 */
final class LatestState {
    private static final VarHandle WORD = MethodHandles.byteBufferViewVarHandle(long[].class, ByteOrder.nativeOrder());

    private final ByteBuffer memory;
    private final int last;

    private LatestState(ByteBuffer memory) {
        this.memory = memory;
        this.last = memory.capacity() - Long.BYTES;
    }

    /**
     * Returns that of an open registry, or null if it does not number its states. The memory outlives the registry: it
     * stays until nobody can read it any more.
     */
    static LatestState of(long registry, Cleaner cleaner) {
        DataReader reply = Reply.checked(RegistryNatives.pinState(registry), null);
        long pin = reply.word64();
        if (pin == 0) {
            return null;
        }
        LatestState latest = new LatestState(RegistryNatives.stateMemory(pin));
        cleaner.register(latest, () -> RegistryNatives.unpinState(pin));
        return latest;
    }

    /** Returns the number, or 0 if it is no longer known. */
    long number() {
        long even = (long) WORD.getAcquire(memory, 0);
        long odd = (long) WORD.getAcquire(memory, last);
        Reference.reachabilityFence(this);
        return Math.max(even, odd);
    }
}
