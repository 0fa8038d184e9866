package velmar.qen.mgmt.registry;

import java.util.Objects;

/**
 * Who owns a key that is created, and who may do what with it. A value: immutable and comparable. An existing key keeps
 * its security whatever a call that writes it is given.
 *
 * <table>
 * <caption>What each security gives</caption>
 * <thead>
 * <tr><th scope="col">security</th><th scope="col">type</th><th scope="col">owner</th><th scope="col">group</th>
 *     <th scope="col">rights of owner, group, others</th></tr>
 * </thead>
 * <tbody>
 * <tr><th scope="row">{@link #ownedBy ownedBy(user)}</th><td>1</td><td>that user</td><td>none</td>
 *     <td>all; write, create, delete; read, list</td></tr>
 * <tr><th scope="row">{@link #inheritFrom inheritFrom(key)}</th><td>2</td><td>the session's user</td>
 *     <td>the key's</td><td>the key's, but others who have all there have read, list here</td></tr>
 * <tr><th scope="row">{@link #sameAsSession(String) sameAsSession(key)}</th><td>3, and 4 and 6</td>
 *     <td>the session's user</td><td>the session's primary group</td><td>all; all; read, list</td></tr>
 * <tr><th scope="row">{@link #open() open()}</th><td>5</td><td>nobody</td><td>none</td><td>all; all; all</td></tr>
 * </tbody>
 * </table>
 *
 * <p>{@link #withOwner} and {@link #withGroup} override the owner and the group of each. Rights add up: owner and group
 * have those of others too. All rights are: read the value
 * and the owners, list the subkeys, write the value, change the security, create subkeys, delete or move the key. The
 * superuser has every right on every key.
 *
 * <p>Names of users and groups are kept in the character set of the process's locale. One that the set does not have,
 * or that has more than 63 bytes in it, is refused by the call that creates the key. In other sets than UTF-8, {@link
 * Registry#owner} and {@link Registry#group} read them back only as far as they are plain ASCII.
 */
public final class Security {
    /** Bytes that the registry keeps of a user's or group's name. */
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
     * The key belongs to a user; its group may change it, others may read it.
     *
     * @param user the owner's name, up to 63 bytes
     * @return security of type 1
     * @throws IllegalArgumentException when the name is empty, has more than 63 characters, or a NUL
     */
    public static Security ownedBy(String user) {
        return new Security(1, null, name(user), null);
    }

    /**
     * The key is the session user's, with the group and the rights of another key. That key must exist and be readable
     * when the new one is created.
     *
     * @param key full name of the other key, mostly the parent
     * @return security of type 2
     */
    public static Security inheritFrom(String key) {
        return ofType(2, key);
    }

    /**
     * The key belongs to the session's user and primary group, who may do everything; others may read it.
     *
     * @return security of type 3
     */
    public static Security sameAsSession() {
        return ofType(3, "");
    }

    /**
     * As {@link #sameAsSession()}. The registry wants a key named, but does not look at it.
     *
     * @param key full name of any key, also of one that does not exist
     * @return security of type 3
     */
    public static Security sameAsSession(String key) {
        return ofType(3, key);
    }

    /**
     * The key belongs to nobody and everybody may do everything.
     *
     * @return security of type 5
     */
    public static Security open() {
        return new Security(5, null, null, null);
    }

    /**
     * The security of a number, for programs that keep the number. Types 3, 4 and 6 give the same.
     *
     * @param type 2, 3, 4 or 6, the types that name a key; 5, which does not look at it
     * @param key full name of the key
     * @return security of that type
     * @throws IllegalArgumentException for other numbers; type 1 is {@link #ownedBy}
     */
    public static Security ofType(int type, String key) {
        if (type < 2 || type > 6) {
            throw new IllegalArgumentException("no security type that names a key: " + type);
        }
        Objects.requireNonNull(key);
        return type == 5 ? open() : new Security(type, key, null, null);
    }

    /**
     * The same security with another owner.
     *
     * @param user the owner's name, up to 63 bytes
     * @return a new value
     * @throws IllegalArgumentException when the name is empty, has more than 63 characters, or a NUL
     */
    public Security withOwner(String user) {
        return new Security(type, key, name(user), group);
    }

    /**
     * The same security with another group.
     *
     * @param newGroup the group's name, up to 63 bytes
     * @return a new value
     * @throws IllegalArgumentException when the name is empty, has more than 63 characters, or a NUL
     */
    public Security withGroup(String newGroup) {
        return new Security(type, key, owner, name(newGroup));
    }

    private static String name(String name) {
        if (name.isEmpty() || name.length() > LONGEST_NAME || name.indexOf('\0') >= 0) {
            throw new IllegalArgumentException("not a user's or group's name: \"" + name + "\"");
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

    /** Whether the group is the session's for certain, so that one step creates the key. */
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
