package velmar.qen.mgmt.registry;

import java.util.concurrent.locks.ReentrantLock;
import java.util.function.Consumer;
import java.util.function.Function;
import java.util.function.Supplier;
import velmar.qen.mgmt.nativesystem.TKVNative;

/**
 * The native session of the process, with the root as its working key. Native calls must not overlap, so every call is
 * made within {@link #inTurn}.
 */
final class Session implements AutoCloseable {
    private static final ReentrantLock TURN = new ReentrantLock();
    /** Whether the process has a session; guarded by the lock, like every field here. */
    private static boolean taken;

    private final TKVNative natives = new TKVNative();
    private boolean open;

    /** Opens the session. A failure leaves nothing open. */
    Session(int level) {
        TURN.lock();
        try {
            if (taken) {
                throw new IllegalStateException("this process has a registry open already, and can have only one");
            }
            try {
                initialize(level);
                // With the root as the working key, every method takes full names.
                call("", report -> natives.openKey("", report));
                open = true;
                taken = true;
            } finally {
                if (!open) {
                    natives.terminateTKV(new Report());
                }
            }
        } finally {
            TURN.unlock();
        }
    }

    private void initialize(int level) {
        Report report = new Report();
        natives.initializeTKVLevel(level, report);
        if (report.failed()) {
            throw report.text() != null ? report.exception(null) : RegistryException.saying(ResultCode.UNKNOWN, null,
                    "a service of the platform could not be started; -Dtkv.trace=true shows which");
        }
    }

    /** Closes the session, after waiting for the call in progress. */
    @Override
    public void close() {
        TURN.lock();
        try {
            if (open) {
                natives.closeKey(new Report());
                natives.terminateTKV(new Report());
                open = false;
                taken = false;
            }
        } finally {
            TURN.unlock();
        }
    }

    /** Does work that consists of native calls; no other thread's calls come between them. */
    <T> T inTurn(Supplier<T> work) {
        TURN.lock();
        try {
            if (!open) {
                throw new RegistryClosedException("the registry is closed");
            }
            return work.get();
        } finally {
            TURN.unlock();
        }
    }

    TKVNative natives() {
        return natives;
    }

    /** Makes a native call, throws if it failed, and returns its result. */
    <T> T query(String key, Function<Report, T> call) {
        Report report = new Report();
        T answer = call.apply(report);
        if (report.failed()) {
            throw report.exception(key);
        }
        return answer;
    }

    /** Makes a native call and throws if it failed. */
    void call(String key, Consumer<Report> call) {
        query(key, report -> {
            call.accept(report);
            return null;
        });
    }
}
