package velmar.qen.mgmt.registry;

import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.util.ArrayList;
import java.util.EnumSet;
import java.util.List;
import java.util.Objects;
import java.util.Optional;
import java.util.stream.Stream;

/** Reading an open registry, as it is at each call or in the state of a snapshot. */
abstract class NativeReader implements RegistryReader {
    /** Ends what was abandoned without being closed. */
    static final Cleaner CLEANER = Cleaner.create();

    /** The number of the registry. */
    final long registry;
    private final long snapshot;

    NativeReader(long registry, long snapshot) {
        this.registry = registry;
        this.snapshot = snapshot;
    }

    @Override
    public Optional<Value> findValue(String name) {
        Objects.requireNonNull(name, "name");
        byte[] reply;
        try {
            reply = RegistryNatives.value(registry, snapshot, name);
        } finally {
            Reference.reachabilityFence(this);
        }
        if (Reply.code(reply) == ResultCode.NO_SUCH_KEY) {
            return Optional.empty();
        }
        DataReader result = Reply.checked(reply, name);
        return Optional.of(result.valueToEnd(result.word32()));
    }

    @Override
    public boolean exists(String name) {
        Objects.requireNonNull(name, "name");
        byte[] reply;
        try {
            reply = RegistryNatives.exists(registry, snapshot, name);
        } finally {
            Reference.reachabilityFence(this);
        }
        if (Reply.code(reply) == ResultCode.NO_SUCH_KEY) {
            return false;
        }
        Reply.checked(reply, name);
        return true;
    }

    @Override
    public List<String> list(String name) {
        Objects.requireNonNull(name, "name");
        try {
            return texts(Reply.checked(RegistryNatives.list(registry, snapshot, name), name));
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /** Reads texts to the end. */
    static List<String> texts(DataReader from) {
        List<String> texts = new ArrayList<>();
        while (!from.atEnd()) {
            texts.add(from.text());
        }
        return List.copyOf(texts);
    }

    @Override
    public Stream<Entry> walk(String name, int depth) {
        Objects.requireNonNull(name, "name");
        if (depth < 0) {
            throw new IllegalArgumentException("a depth below 0: " + depth);
        }
        try {
            return EntryStream.of(Reply.checked(RegistryNatives.beginWalk(registry, snapshot, name, depth), name), CLEANER);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    @Override
    public KeyInfo stat(String name) {
        Objects.requireNonNull(name, "name");
        try {
            return KeyInfo.read(name, Reply.checked(RegistryNatives.stat(registry, snapshot, name), name));
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    @Override
    public EnumSet<Right> rights(String name) {
        Objects.requireNonNull(name, "name");
        try {
            return Right.ofMask(Reply.checked(RegistryNatives.rights(registry, snapshot, name), name).word32());
        } finally {
            Reference.reachabilityFence(this);
        }
    }
}
