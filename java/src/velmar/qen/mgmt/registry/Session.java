package velmar.qen.mgmt.registry;

import java.util.concurrent.locks.ReentrantLock;
import java.util.function.Consumer;
import java.util.function.Function;
import java.util.function.Supplier;
import velmar.qen.mgmt.nativesystem.TKVNative;

/**
 * The process's native session, with the root as its working key. Keeps native calls from overlapping: whoever calls
 * one does so in {@link #inTurn}.
 */
final class Session implements AutoCloseable {
    private static final ReentrantLock TURN = new ReentrantLock();
    /** Guarded by the lock, like everything here. */
    private static boolean taken;

    private final TKVNative natives = new TKVNative();
    private boolean open;

    /** Opens the session, or takes nothing. */
    Session(int level) {
        TURN.lock();
        try {
            if (taken) {
                throw new IllegalStateException("this process has a registry open already; there is one a process");
            }
            try {
                initialize(level);
                // With the root as working key, names below it are full names, in every method.
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
            throw report.text() != null ? report.exception(null) : RegistryException.saying(
                    ResultCode.UNKNOWN, null, "a service of the platform could not be started");
        }
    }

    /** Closes the session, after the calls in progress. */
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

    /** Does work that consists of native calls, with nobody else's between them. */
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

    /** Makes a native call that gives something back, and throws when it failed. */
    <T> T query(String key, Function<Report, T> call) {
        Report report = new Report();
        T answer = call.apply(report);
        if (report.failed()) {
            throw report.exception(key);
        }
        return answer;
    }

    /** Makes a native call, and throws when it failed. */
    void call(String key, Consumer<Report> call) {
        query(key, report -> {
            call.accept(report);
            return null;
        });
    }
}
