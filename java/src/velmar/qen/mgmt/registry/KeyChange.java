package velmar.qen.mgmt.registry;

import java.util.Objects;
import java.util.Optional;

/**
 * What a change did to one key.
 *
 * @param kind what was done
 * @param name full name of the key after the change or, if it was deleted, before it
 * @param formerName of a key that was moved, the full name before; empty otherwise
 */
public record KeyChange(Kind kind, String name, Optional<String> formerName) {
    /** Kinds of changes. */
    public enum Kind {
        /** The key was created, with its first value if it has one. */
        CREATED,
        /** The value was written or taken away. */
        VALUE,
        /** The owner, the group or the rights were changed. */
        SECURITY,
        /** The key was moved, with everything below it. */
        MOVED,
        /** The key was deleted, with everything below it. */
        DELETED,
        /** Stands for more changes than the log lists one by one, all of them at this key or below it. */
        AT_OR_BELOW
    }

    /**
     * Creates a value.
     *
     * @param kind what was done
     * @param name full name
     * @param formerName the full name before
     */
    public KeyChange {
        Objects.requireNonNull(kind, "kind");
        Objects.requireNonNull(name, "name");
        Objects.requireNonNull(formerName, "formerName");
    }

    static KeyChange read(DataReader from) {
        Kind kind = Kind.values()[from.word32() - 1];
        String name = from.text();
        return new KeyChange(kind, name, Optional.of(from.text()).filter(former -> kind == Kind.MOVED));
    }
}
