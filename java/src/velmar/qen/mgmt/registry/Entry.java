package velmar.qen.mgmt.registry;

import java.util.EnumSet;
import java.util.Optional;

/** A key in a stream of entries, with its value and its security as they were in the state that the stream shows. */
public final class Entry {
    private final String name;
    private final EnumSet<Right> rights;
    private final Value value;
    private final KeySecurity security;
    private final Long revision;

    private Entry(String name, EnumSet<Right> rights, Value value, KeySecurity security, Long revision) {
        this.name = name;
        this.rights = rights;
        this.value = value;
        this.security = security;
        this.revision = revision;
    }

    static Entry read(DataReader from) {
        String name = from.text();
        EnumSet<Right> rights = Right.ofMask(from.word32());
        Value value = from.value(from.word32());
        if (!rights.contains(Right.READ)) {
            return new Entry(name, rights, null, null, null);
        }
        KeySecurity security = KeySecurity.read(from);
        return new Entry(name, rights, value, security, from.word64());
    }

    /**
     * Returns the name of the key.
     *
     * @return the full name
     */
    public String name() {
        return name;
    }

    /**
     * Returns the last level of the name.
     *
     * @return the level
     */
    public String level() {
        return name.substring(name.lastIndexOf('.') + 1);
    }

    /**
     * Returns what the session may do with the key.
     *
     * @return a new set
     */
    public EnumSet<Right> rights() {
        return rights.clone();
    }

    /**
     * Returns the value of the key.
     *
     * @return the value, {@link Value.None} if there is none
     * @throws MissingRightException if the session may not read the key
     */
    public Value value() {
        return readable(value);
    }

    /**
     * Returns the value of the key, if the session may read it.
     *
     * @return the value; empty if the session may not read the key
     */
    public Optional<Value> findValue() {
        return Optional.ofNullable(value);
    }

    /**
     * Returns the security of the key.
     *
     * @return the security, complete
     * @throws MissingRightException if the session may not read the key
     */
    public KeySecurity security() {
        return readable(security);
    }

    /**
     * Returns the revision of the last change of the key or its value.
     *
     * @return the revision; 0 if the change is older than revisions are
     * @throws MissingRightException if the session may not read the key
     */
    public long revision() {
        return readable(revision);
    }

    private <T> T readable(T part) {
        if (part == null) {
            throw RegistryException.of(ResultCode.ACCESS_DENIED, name, "key '" + name + "' may not be read");
        }
        return part;
    }

    @Override
    public String toString() {
        return name;
    }
}
