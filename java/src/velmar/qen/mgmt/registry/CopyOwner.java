package velmar.qen.mgmt.registry;

/** Who owns the topmost key of a copied tree. The keys below it keep the owners and the rights of their sources. */
public enum CopyOwner {
    /** As the source. */
    SOURCE(1),
    /** The session's user; the group as the source. */
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
