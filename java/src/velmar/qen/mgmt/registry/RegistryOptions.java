package velmar.qen.mgmt.registry;

import java.nio.file.Path;
import java.time.Duration;
import java.util.Objects;

/**
 * How a registry is opened. Instances are immutable values, made with {@link #builder}.
 *
 * <p>{@code RegistryOptions.builder().readOnly(true).timeout(Duration.ofSeconds(2)).build()}
 */
public final class RegistryOptions {
    // As open_request.cpp names them. Do not change one side alone.
    private static final int CONFIGURED = 0;
    private static final int CONFIGURATION_FILE = 1;
    private static final int DIRECTORY = 2;
    private static final int READ_ONLY = 1;
    private static final int MUST_EXIST = 2;

    private static final Duration DEFAULT_PATIENCE = Duration.ofSeconds(30);

    /** As configured, writable, created if there is none. */
    static final RegistryOptions DEFAULTS = builder().build();

    private final int timeoutMillis;
    private final boolean readOnly;
    private final boolean mustExist;
    private final String note;

    private RegistryOptions(Builder builder) {
        timeoutMillis = builder.timeoutMillis;
        readOnly = builder.readOnly;
        mustExist = builder.mustExist;
        note = builder.note;
    }

    /**
     * Returns a builder with the defaults.
     *
     * @return a new builder
     */
    public static Builder builder() {
        return new Builder();
    }

    /** Returns how long a call may be repeated that others keep from succeeding. */
    Duration patience() {
        return timeoutMillis == 0 ? DEFAULT_PATIENCE : Duration.ofMillis(timeoutMillis);
    }

    byte[] request() {
        return request(CONFIGURED, "");
    }

    byte[] requestForConfiguration(Path file) {
        return request(CONFIGURATION_FILE, file.toAbsolutePath().toString());
    }

    byte[] requestForDirectory(Path directory) {
        return request(DIRECTORY, directory.toAbsolutePath().normalize().toString());
    }

    private byte[] request(int place, String path) {
        int flags = (readOnly ? READ_ONLY : 0) | (mustExist ? MUST_EXIST : 0);
        return new DataWriter().word32(place).text(path).word32(flags).word32(timeoutMillis).text(note).done();
    }

    /** Builds options. A builder must not be used by several threads at a time. */
    public static final class Builder {
        private int timeoutMillis;
        private boolean readOnly;
        private boolean mustExist;
        private String note = "";

        private Builder() {}

        /**
         * Limits the time that a call takes: that it waits for other writers or for the answer of a cluster. A call
         * that takes longer fails. The default is what is configured.
         *
         * @param timeout the time, at least a millisecond
         * @return this builder
         * @throws IllegalArgumentException if the time is less than a millisecond or more than 2,147,483,647 of them
         *     (24 days)
         */
        public Builder timeout(Duration timeout) {
            Objects.requireNonNull(timeout, "timeout");
            if (timeout.compareTo(Duration.ofMillis(1)) < 0
                    || timeout.compareTo(Duration.ofMillis(Integer.MAX_VALUE)) > 0) {
                throw new IllegalArgumentException("no time to wait for: " + timeout);
            }
            timeoutMillis = (int) timeout.toMillis();
            return this;
        }

        /**
         * Opens the registry for reading only. Calls that change something throw {@link MissingRightException}, and a
         * registry that does not exist is not created. The default is false.
         *
         * @param only whether to open the registry for reading only
         * @return this builder
         */
        public Builder readOnly(boolean only) {
            readOnly = only;
            return this;
        }

        /**
         * Opens a registry only if it exists. By default, a registry of this node alone is created if there is none.
         *
         * @param must whether the registry must exist
         * @return this builder
         */
        public Builder mustExist(boolean must) {
            mustExist = must;
            return this;
        }

        /**
         * Notes in the log what the changes of this session are for. The default is no note.
         *
         * @param text the note, of which the log keeps 1024 bytes
         * @return this builder
         */
        public Builder note(String text) {
            note = Objects.requireNonNull(text, "text");
            return this;
        }

        /**
         * Returns the options.
         *
         * @return the options as they are set now
         */
        public RegistryOptions build() {
            return new RegistryOptions(this);
        }
    }
}
