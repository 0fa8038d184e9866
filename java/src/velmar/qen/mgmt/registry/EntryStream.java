package velmar.qen.mgmt.registry;

import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.util.Spliterator;
import java.util.Spliterators;
import java.util.function.Consumer;
import java.util.stream.Stream;
import java.util.stream.StreamSupport;

/** The entries of a walk, which native code has collected and delivers in blocks. */
final class EntryStream extends Spliterators.AbstractSpliterator<Entry> {
    /** The handle of the blocks that native code still holds. */
    private static final class Rest implements Runnable {
        private long handle;
        private boolean closed;

        /** Discards the rest. Another thread may be reading it. */
        @Override
        public synchronized void run() {
            closed = true;
            if (handle != 0) {
                RegistryNatives.endWalk(handle);
                handle = 0;
            }
        }

        /** Takes the next block. Returns null at the end. */
        synchronized DataReader next() {
            if (closed) {
                throw RegistryException.of(ResultCode.INVALID_HANDLE, null, "the stream is closed");
            }
            return handle == 0 ? null : take(Reply.checked(RegistryNatives.continueWalk(handle), null));
        }

        private synchronized DataReader take(DataReader block) {
            handle = block.word64();
            return block;
        }
    }

    private final Rest rest = new Rest();
    private final Cleaner.Cleanable cleanable;
    private DataReader block;

    private EntryStream(DataReader first, Cleaner cleaner) {
        super(Long.MAX_VALUE, ORDERED | DISTINCT | NONNULL | IMMUTABLE);
        block = rest.take(first);
        cleanable = cleaner.register(this, rest);
    }

    /** Returns the stream that begins with a block. */
    static Stream<Entry> of(DataReader first, Cleaner cleaner) {
        EntryStream entries = new EntryStream(first, cleaner);
        Spliterator<Entry> spliterator = entries;
        return StreamSupport.stream(spliterator, false).onClose(entries.cleanable::clean);
    }

    @Override
    public boolean tryAdvance(Consumer<? super Entry> action) {
        try {
            while (block != null && block.atEnd()) {
                block = rest.next();
            }
        } finally {
            Reference.reachabilityFence(this);
        }
        if (block == null) {
            return false;
        }
        action.accept(Entry.read(block));
        return true;
    }
}
