package velmar.qen.mgmt.registry;

import java.util.Objects;

/**
 * The kind of registry that can be stored at a path.
 *
 * @param kind the kind of storage
 * @param text the registry's message about the path, empty for {@link Kind#EMBEDDED}
 */
public record Storage(Kind kind, String text) {
    /** Kinds of storage. */
    public enum Kind {
        /** A directory that can hold the registry of this node. */
        EMBEDDED,
        /** The address of a registry that several nodes share. */
        DISTRIBUTED,
        /** Neither; the text states the reason. */
        UNUSABLE
    }

    /**
     * Creates a value.
     *
     * @param kind the kind of storage
     * @param text the registry's message about the path
     */
    public Storage {
        Objects.requireNonNull(kind, "kind");
        Objects.requireNonNull(text, "text");
    }
}
