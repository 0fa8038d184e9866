package velmar.qen.mgmt.registry;

import java.nio.charset.StandardCharsets;
import java.util.EnumSet;
import java.util.Objects;
import java.util.Optional;
import java.util.Set;

/**
 * The owner and the rights of a key. Instances are immutable values.
 *
 * <p>A key belongs to a user and a group, and grants rights to its owner, to the members of its group, and to everybody
 * else. Rights add up: the owner and the group may also do what others may. The superuser may do everything.
 *
 * <p>An instance specifies some or all of the five parts: owner, group, and the rights of each class. What it leaves
 * open comes from elsewhere. In {@link Registry#setSecurity}, it stays as it is. For a new key, the owner is the
 * session's user, and:
 *
 * <table>
 * <caption>The security of a new key</caption>
 * <thead>
 * <tr><th scope="col">security</th><th scope="col">group</th><th scope="col">owner may</th>
 *     <th scope="col">group may</th><th scope="col">others may</th></tr>
 * </thead>
 * <tbody>
 * <tr><th scope="row">{@link #inherited}, the default</th><td>the parent's</td><td>as there</td><td>as there</td>
 *     <td>as there; read and list if all is allowed there</td></tr>
 * <tr><th scope="row">{@link #privateToUser}</th><td>the session's</td><td>everything</td><td>nothing</td>
 *     <td>nothing</td></tr>
 * <tr><th scope="row">{@link #privateToGroup}</th><td>the session's</td><td>everything</td><td>everything</td>
 *     <td>nothing</td></tr>
 * <tr><th scope="row">{@link #readableByAll}</th><td>the session's</td><td>everything</td><td>everything</td>
 *     <td>read, list</td></tr>
 * <tr><th scope="row">{@link #open}</th><td>none</td><td>everything</td><td>everything</td><td>everything</td></tr>
 * </tbody>
 * </table>
 *
 * <p>{@link #open} specifies that nobody is the owner. The methods that begin with {@code with} specify single parts:
 * {@code KeySecurity.privateToGroup().withGroup("operators")} is private to that group.
 *
 * <p>The session must be able to read the parent for a key to inherit from it. A parent that is created along with the
 * key has the same security as the key.
 */
public final class KeySecurity {
    /** The longest name of a user or group, in bytes. */
    private static final int LONGEST_NAME = 63;

    // Flags, as data_reader.cpp names them. Do not change one side alone.
    private static final int INHERITS = 1;
    private static final int HAS_OWNER = 2;
    private static final int HAS_GROUP = 4;

    private static final Set<Right> ALL = EnumSet.allOf(Right.class);
    private static final Set<Right> NONE = EnumSet.noneOf(Right.class);
    private static final Set<Right> READ_AND_LIST = EnumSet.of(Right.READ, Right.LIST);

    private static final KeySecurity INHERITED = new KeySecurity(true, null, null, null, null, null);
    private static final KeySecurity PRIVATE_TO_USER = new KeySecurity(false, null, null, ALL, NONE, NONE);
    private static final KeySecurity PRIVATE_TO_GROUP = new KeySecurity(false, null, null, ALL, ALL, NONE);
    private static final KeySecurity READABLE_BY_ALL = new KeySecurity(false, null, null, ALL, ALL, READ_AND_LIST);
    private static final KeySecurity OPEN = new KeySecurity(false, "", "", ALL, ALL, ALL);

    private final boolean inherits;
    // Null where it is left open. The sets are never changed.
    private final String owner;
    private final String group;
    private final Set<Right> ownerRights;
    private final Set<Right> groupRights;
    private final Set<Right> otherRights;

    private KeySecurity(boolean inherits, String owner, String group, Set<Right> ownerRights, Set<Right> groupRights,
                        Set<Right> otherRights) {
        this.inherits = inherits;
        this.owner = owner;
        this.group = group;
        this.ownerRights = ownerRights;
        this.groupRights = groupRights;
        this.otherRights = otherRights;
    }

    /**
     * Returns the security that leaves everything open: a new key has the group and the rights of its parent. This is
     * the default. Others can read a new key if they can read its parent, and not otherwise.
     *
     * @return the security
     */
    public static KeySecurity inherited() {
        return INHERITED;
    }

    /**
     * Returns the security that grants everything to the owner, and nothing to anybody else.
     *
     * @return the security
     */
    public static KeySecurity privateToUser() {
        return PRIVATE_TO_USER;
    }

    /**
     * Returns the security that grants everything to the owner and the group, and nothing to others.
     *
     * @return the security
     */
    public static KeySecurity privateToGroup() {
        return PRIVATE_TO_GROUP;
    }

    /**
     * Returns the security that grants everything to the owner and the group, and lets others read and list.
     *
     * @return the security
     */
    public static KeySecurity readableByAll() {
        return READABLE_BY_ALL;
    }

    /**
     * Returns the security of a key that belongs to nobody, and on which everybody has all rights.
     *
     * @return the security
     */
    public static KeySecurity open() {
        return OPEN;
    }

    /**
     * Returns the same security with this owner specified.
     *
     * @param user the user's name, or number if the user has no name; empty for nobody
     * @return a new value
     * @throws IllegalArgumentException if the name has more than 63 bytes or contains a NUL
     */
    public KeySecurity withOwner(String user) {
        return new KeySecurity(inherits, checked(user), group, ownerRights, groupRights, otherRights);
    }

    /**
     * Returns the same security with this group specified.
     *
     * @param name the group's name, or number if the group has no name; empty for none
     * @return a new value
     * @throws IllegalArgumentException if the name has more than 63 bytes or contains a NUL
     */
    public KeySecurity withGroup(String name) {
        return new KeySecurity(inherits, owner, checked(name), ownerRights, groupRights, otherRights);
    }

    /**
     * Returns the same security with these rights of the owner specified.
     *
     * @param rights the rights, which are copied
     * @return a new value
     */
    public KeySecurity withOwnerRights(Set<Right> rights) {
        return new KeySecurity(inherits, owner, group, copy(rights), groupRights, otherRights);
    }

    /**
     * Returns the same security with these rights of the group specified.
     *
     * @param rights the rights, which are copied
     * @return a new value
     */
    public KeySecurity withGroupRights(Set<Right> rights) {
        return new KeySecurity(inherits, owner, group, ownerRights, copy(rights), otherRights);
    }

    /**
     * Returns the same security with these rights of others specified.
     *
     * @param rights the rights, which are copied
     * @return a new value
     */
    public KeySecurity withOtherRights(Set<Right> rights) {
        return new KeySecurity(inherits, owner, group, ownerRights, groupRights, copy(rights));
    }

    /**
     * Returns the owner.
     *
     * @return the user's name, or number if the user has no name; empty if the key belongs to nobody
     * @throws IllegalStateException if the owner is left open
     */
    public Optional<String> owner() {
        return Optional.of(specified(owner, "owner")).filter(name -> !name.isEmpty());
    }

    /**
     * Returns the group.
     *
     * @return the group's name, or number if the group has no name; empty if there is none
     * @throws IllegalStateException if the group is left open
     */
    public Optional<String> group() {
        return Optional.of(specified(group, "group")).filter(name -> !name.isEmpty());
    }

    /**
     * Returns the rights of the owner.
     *
     * @return a new set
     * @throws IllegalStateException if these rights are left open
     */
    public EnumSet<Right> ownerRights() {
        return EnumSet.copyOf(specified(ownerRights, "owner's rights"));
    }

    /**
     * Returns the rights of the group.
     *
     * @return a new set
     * @throws IllegalStateException if these rights are left open
     */
    public EnumSet<Right> groupRights() {
        return EnumSet.copyOf(specified(groupRights, "group's rights"));
    }

    /**
     * Returns the rights of others.
     *
     * @return a new set
     * @throws IllegalStateException if these rights are left open
     */
    public EnumSet<Right> otherRights() {
        return EnumSet.copyOf(specified(otherRights, "others' rights"));
    }

    /**
     * Returns whether all parts are specified, as they are in the security of a key that exists.
     *
     * @return whether nothing is left open
     */
    public boolean isComplete() {
        return owner != null && group != null && ownerRights != null && groupRights != null && otherRights != null;
    }

    private static <T> T specified(T part, String name) {
        if (part == null) {
            throw new IllegalStateException("this security leaves the " + name + " open");
        }
        return part;
    }

    private static Set<Right> copy(Set<Right> rights) {
        EnumSet<Right> copy = EnumSet.noneOf(Right.class);
        copy.addAll(rights);
        return copy;
    }

    private static String checked(String name) {
        if (name.getBytes(StandardCharsets.UTF_8).length > LONGEST_NAME || name.indexOf('\0') >= 0) {
            throw new IllegalArgumentException("not the name of a user or group: \"" + name + "\"");
        }
        return name;
    }

    /** Reads the security of a key. */
    static KeySecurity read(DataReader from) {
        EnumSet<Right> ownerRights = Right.ofMask(from.word32());
        EnumSet<Right> groupRights = Right.ofMask(from.word32());
        EnumSet<Right> otherRights = Right.ofMask(from.word32());
        String owner = from.text();
        String group = from.text();
        return new KeySecurity(false, owner, group, ownerRights, groupRights, otherRights);
    }

    DataWriter write(DataWriter to) {
        int flags = (inherits ? INHERITS : 0) | (owner != null ? HAS_OWNER : 0) | (group != null ? HAS_GROUP : 0);
        to.word32(flags).word32(mask(ownerRights)).word32(mask(groupRights)).word32(mask(otherRights));
        if (owner != null) {
            to.text(owner);
        }
        if (group != null) {
            to.text(group);
        }
        return to;
    }

    private static int mask(Set<Right> rights) {
        return rights == null ? -1 : Right.mask(rights);
    }

    @Override
    public boolean equals(Object other) {
        return other instanceof KeySecurity that && inherits == that.inherits && Objects.equals(owner, that.owner)
                && Objects.equals(group, that.group) && Objects.equals(ownerRights, that.ownerRights)
                && Objects.equals(groupRights, that.groupRights) && Objects.equals(otherRights, that.otherRights);
    }

    @Override
    public int hashCode() {
        return Objects.hash(inherits, owner, group, ownerRights, groupRights, otherRights);
    }

    /** Returns the parts that are specified, for people. */
    @Override
    public String toString() {
        StringBuilder text = new StringBuilder();
        describe(text, "owner", owner == null || !owner.isEmpty() ? owner : "nobody");
        describe(text, "group", group == null || !group.isEmpty() ? group : "none");
        describe(text, "owner's rights", ownerRights);
        describe(text, "group's rights", groupRights);
        describe(text, "others' rights", otherRights);
        return text.isEmpty() ? "inherited" : text.toString();
    }

    private static void describe(StringBuilder text, String name, Object part) {
        if (part != null) {
            text.append(text.isEmpty() ? "" : ", ").append(name).append(' ').append(part);
        }
    }
}
