package velmar.qen.mgmt.registry;

/** Who owns the keys of a copy. */
public enum CopyOwner {
    /** The owners and groups of the keys that are copied. */
    SOURCE,
    /** The session's user and primary group. */
    SESSION
}
