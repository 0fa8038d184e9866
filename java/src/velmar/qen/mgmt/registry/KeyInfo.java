package velmar.qen.mgmt.registry;

import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.EnumSet;
import java.util.Objects;
import java.util.Optional;
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
 * @param revision the revision of the last change of the key or its value; 0 if it is older than revisions are
 * @param changedAt when that change was made, by the clock of its author; empty if it is no longer retained
 * @param changedBy the user who made it; empty if it is no longer retained
 */
public record KeyInfo(String name, ValueType type, long size, boolean hasSubkeys, Set<Right> rights,
                      KeySecurity security, long revision, Optional<Instant> changedAt, Optional<String> changedBy) {
    /**
     * Creates a value from a copy of the rights.
     *
     * @param name full name
     * @param type the type of the value
     * @param size the size of the value as it is stored, in bytes
     * @param hasSubkeys whether the key has subkeys
     * @param rights what the session may do with the key
     * @param security owner, group and rights
     * @param revision the revision of the last change
     * @param changedAt when that change was made
     * @param changedBy the user who made it
     */
    public KeyInfo {
        Objects.requireNonNull(name, "name");
        Objects.requireNonNull(type, "type");
        Objects.requireNonNull(security, "security");
        Objects.requireNonNull(changedAt, "changedAt");
        Objects.requireNonNull(changedBy, "changedBy");
        rights = Set.copyOf(rights);
    }

    static KeyInfo read(String name, DataReader from) {
        ValueType type = ValueType.of(from.word32());
        long size = from.word64();
        boolean hasSubkeys = from.flag();
        EnumSet<Right> rights = Right.ofMask(from.word32());
        KeySecurity security = KeySecurity.read(from);
        long revision = from.word64();
        long microseconds = from.word64();
        Optional<Instant> changedAt =
                microseconds == 0 ? Optional.empty() : Optional.of(Instant.EPOCH.plus(microseconds, ChronoUnit.MICROS));
        Optional<String> changedBy = Optional.of(from.text()).filter(user -> !user.isEmpty());
        return new KeyInfo(name, type, size, hasSubkeys, rights, security, revision, changedAt, changedBy);
    }
}
