package velmar.qen.mgmt.registry;

import java.util.EnumSet;
import java.util.Objects;
import java.util.Set;

/**
 * What is known of a key besides the contents of its value.
 *
 * @param name full name
 * @param type the type of the value
 * @param size the size of the value as it is stored, in bytes
 * @param hasSubkeys whether the key has subkeys
 * @param rights what the session may do with the key, unmodifiable
 * @param security owner, group and rights, complete
 */
public record KeyInfo(String name, ValueType type, long size, boolean hasSubkeys, Set<Right> rights,
                      KeySecurity security) {
    /**
     * Creates a value from a copy of the rights.
     *
     * @param name full name
     * @param type the type of the value
     * @param size the size of the value as it is stored, in bytes
     * @param hasSubkeys whether the key has subkeys
     * @param rights what the session may do with the key
     * @param security owner, group and rights
     */
    public KeyInfo {
        Objects.requireNonNull(name, "name");
        Objects.requireNonNull(type, "type");
        Objects.requireNonNull(security, "security");
        rights = Set.copyOf(rights);
    }

    static KeyInfo read(String name, DataReader from) {
        ValueType type = ValueType.of(from.word32());
        long size = from.word64();
        boolean hasSubkeys = from.flag();
        EnumSet<Right> rights = Right.ofMask(from.word32());
        return new KeyInfo(name, type, size, hasSubkeys, rights, KeySecurity.read(from));
    }
}
