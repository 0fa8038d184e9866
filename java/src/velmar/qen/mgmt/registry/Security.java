package velmar.qen.mgmt.registry;

import java.util.Objects;

/**
 * The owner and the rights of a new key. Instances are immutable values. A call that writes an existing key does not
 * change its security.
 *
 * <table>
 * <caption>Owner, group and rights</caption>
 * <thead>
 * <tr><th scope="col">security</th><th scope="col">type</th><th scope="col">owner</th><th scope="col">group</th>
 *     <th scope="col">rights of owner, group, others</th></tr>
 * </thead>
 * <tbody>
 * <tr><th scope="row">{@link #ownedBy ownedBy(user)}</th><td>1</td><td>that user</td><td>none</td>
 *     <td>all; write, create, delete; read, list</td></tr>
 * <tr><th scope="row">{@link #inheritFrom inheritFrom(key)}</th><td>2</td><td>the session's user</td>
 *     <td>the key's</td><td>the key's, except that others who have all rights there have read, list here</td></tr>
 * <tr><th scope="row">{@link #sameAsSession(String) sameAsSession(key)}</th><td>3, and 4 and 6</td>
 *     <td>the session's user</td><td>the session's primary group</td><td>all; all; read, list</td></tr>
 * <tr><th scope="row">{@link #open() open()}</th><td>5</td><td>nobody</td><td>none</td><td>all; all; all</td></tr>
 * </tbody>
 * </table>
 *
 * <p>{@link #withOwner} and {@link #withGroup} replace the owner or the group. Rights add up: the owner and the group
 * also have the rights of others. The rights are: read the value and the security, list the subkeys, write the value,
 * change the security, create subkeys, delete or move the key. The superuser has all rights on every key.
 *
 * <p>Every security here lets others read and list. To keep a key private, create it below a key that an operator has
 * restricted, with {@link #inheritFrom} that key.
 *
 * <p>Names of users and groups are stored in the character set of the process's locale. The call that creates the key
 * refuses a name that cannot be converted or that takes more than 63 bytes. Unless the character set is UTF-8, {@link
 * Registry#owner} and {@link Registry#group} return only plain ASCII names unchanged.
 */
public final class Security {
    /** The longest name of a user or group, in bytes. */
    private static final int LONGEST_NAME = 63;

    private final int type;
    private final String key;
    private final String owner;
    private final String group;

    private Security(int type, String key, String owner, String group) {
        this.type = type;
        this.key = key;
        this.owner = owner;
        this.group = group;
    }

    /**
     * Returns the security of a key that belongs to a user. Its group may change it, and others may read it.
     *
     * @param user the owner's name, at most 63 bytes
     * @return security of type 1
     * @throws IllegalArgumentException if the name is empty, has more than 63 characters, or contains a NUL
     */
    public static Security ownedBy(String user) {
        return new Security(1, null, name(user), null);
    }

    /**
     * Returns the security of a key that belongs to the session's user and has the group and the rights of another key.
     * That key must exist and be readable when the new one is created.
     *
     * @param key full name of the other key, usually the parent
     * @return security of type 2
     */
    public static Security inheritFrom(String key) {
        return ofType(2, key);
    }

    /**
     * Returns the security of a key that belongs to the session's user and primary group, who have all rights. Others
     * may read it.
     *
     * @return security of type 3
     */
    public static Security sameAsSession() {
        return ofType(3, "");
    }

    /**
     * Returns the same security as {@link #sameAsSession()}. The native methods require the name of a key, but do not
     * use it.
     *
     * @param key full name of any key, which need not exist
     * @return security of type 3
     */
    public static Security sameAsSession(String key) {
        return ofType(3, key);
    }

    /**
     * Returns the security of a key without an owner, on which everybody has all rights.
     *
     * @return security of type 5
     */
    public static Security open() {
        return new Security(5, null, null, null);
    }

    /**
     * Returns the security of a numbered type, for programs that store the number. Types 3, 4 and 6 are equivalent.
     *
     * @param type 2, 3, 4 or 6, the types that name a key, or 5, which ignores it
     * @param key full name of the key
     * @return security of that type
     * @throws IllegalArgumentException for any other number; for type 1, use {@link #ownedBy}
     */
    public static Security ofType(int type, String key) {
        if (type < 2 || type > 6) {
            throw new IllegalArgumentException("not a security type that names a key: " + type);
        }
        Objects.requireNonNull(key);
        return type == 5 ? open() : new Security(type, key, null, null);
    }

    /**
     * Returns the same security with another owner.
     *
     * @param user the owner's name, at most 63 bytes
     * @return a new value
     * @throws IllegalArgumentException if the name is empty, has more than 63 characters, or contains a NUL
     */
    public Security withOwner(String user) {
        return new Security(type, key, name(user), group);
    }

    /**
     * Returns the same security with another group.
     *
     * @param newGroup the group's name, at most 63 bytes
     * @return a new value
     * @throws IllegalArgumentException if the name is empty, has more than 63 characters, or contains a NUL
     */
    public Security withGroup(String newGroup) {
        return new Security(type, key, owner, name(newGroup));
    }

    private static String name(String name) {
        if (name.isEmpty() || name.length() > LONGEST_NAME || name.indexOf('\0') >= 0) {
            throw new IllegalArgumentException("not the name of a user or group: \"" + name + "\"");
        }
        return name;
    }

    int type() {
        return type;
    }

    String key() {
        return key;
    }

    String owner() {
        return owner;
    }

    String group() {
        return group;
    }

    boolean readsKey() {
        return type == 2;
    }

    /** Returns whether the group is certain to be the session's, so that the key is created in one step. */
    boolean hasSessionsGroup() {
        return (type == 3 || type == 4 || type == 6) && group == null;
    }

    @Override
    public boolean equals(Object other) {
        return other instanceof Security that && type == that.type && Objects.equals(key, that.key)
                && Objects.equals(owner, that.owner) && Objects.equals(group, that.group);
    }

    @Override
    public int hashCode() {
        return Objects.hash(type, key, owner, group);
    }

    @Override
    public String toString() {
        return "type " + type + (key == null ? "" : ", key '" + key + "'") + (owner == null ? "" : ", owner " + owner)
                + (group == null ? "" : ", group " + group);
    }
}
