package velmar.qen.mgmt.registry;

import java.util.EnumSet;
import java.util.Set;

/** What may be done with a key. */
public enum Right {
    /** Read the value and the security. */
    READ(0x01),
    /** List the subkeys. */
    LIST(0x02),
    /** Write the value. */
    WRITE(0x04),
    /** Change the security. */
    SECURITY(0x08),
    /** Create subkeys, and move or copy keys below this one. */
    CREATE(0x10),
    /** Delete or move the key. */
    DELETE(0x20);

    private final int bit;

    Right(int bit) {
        this.bit = bit;
    }

    /** Returns the rights in a mask as the registry stores it. */
    static EnumSet<Right> ofMask(int mask) {
        EnumSet<Right> rights = EnumSet.noneOf(Right.class);
        for (Right right : values()) {
            if ((mask & right.bit) != 0) {
                rights.add(right);
            }
        }
        return rights;
    }

    static int mask(Set<Right> rights) {
        int mask = 0;
        for (Right right : rights) {
            mask |= right.bit;
        }
        return mask;
    }
}
