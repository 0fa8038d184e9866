package velmar.qen.mgmt.registry;

/**
 * What a path can hold.
 *
 * @param kind the kind of storage
 * @param text what the registry says about the path, empty for {@link Kind#EMBEDDED}
 */
public record Storage(Kind kind, String text) {
    /** Kinds of storage. */
    public enum Kind {
        /** A directory that can hold the registry of this node. */
        EMBEDDED,
        /** The address of a registry that several nodes share. */
        DISTRIBUTED,
        /** Neither; the text says why. */
        UNUSABLE
    }
}
