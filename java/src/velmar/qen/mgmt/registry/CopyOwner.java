package velmar.qen.mgmt.registry;

/** Who owns the topmost key of a copied tree. The keys below it have the owners and rights of their sources. */
public enum CopyOwner {
    /** The owner and group of the source. */
    SOURCE(1),
    /** The session's user, and the group of the source. */
    SESSION_USER(2),
    /** The session's user and primary group. */
    SESSION(3);

    private final int type;

    CopyOwner(int type) {
        this.type = type;
    }

    int type() {
        return type;
    }
}
