package velmar.qen.mgmt.registry;

import java.lang.ref.Reference;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Objects;

/**
 * Changes that are made together, all or nothing, and only if conditions hold. Made with {@link Registry#batch}.
 *
 * <pre>{@code
 * long revision = registry.batch()
 *         .ifValue("app.leader", new Value.Text("alpha"))
 *         .put("app.leader", "beta")
 *         .put("app.term", 8)
 *         .delete("app.candidate")
 *         .commit();
 * }</pre>
 *
 * <p>All conditions are about the state before the batch, and each change sees those before it. What the methods for
 * changes say about keys that exist, and what they throw, applies when the batch is committed; arguments are checked at
 * once.
 *
 * <p>A batch must not be used by several threads at a time. It keeps the values that it is given, which are immutable,
 * and can be committed again.
 */
public final class Batch {
    // As batch_request.cpp names them. Do not change one side alone.
    private static final int IF_ABSENT = 0;
    private static final int IF_EXISTS = 1;
    private static final int IF_VALUE = 2;
    private static final int IF_REVISION = 3;
    private static final int PUT = 0;
    private static final int CREATE = 1;
    private static final int DELETE = 2;
    private static final int MOVE = 3;
    private static final int COPY = 4;
    private static final int SECURITY = 5;
    private static final int TREE = 1;
    private static final int REPLACE = 2;
    private static final int OWN = 4;
    private static final int CREATES_PARENTS = 1;

    private final Registry registry;
    private final KeySecurity newKeys;
    private String note = "";
    private boolean createsParents;
    private final DataWriter conditions = new DataWriter();
    private final DataWriter changes = new DataWriter();
    /** The keys that the conditions and the changes are about, in their order. */
    private final List<String> conditionKeys = new ArrayList<>();
    private final List<String> changeKeys = new ArrayList<>();

    Batch(Registry registry, KeySecurity newKeys) {
        this.registry = registry;
        this.newKeys = newKeys;
    }

    // --- Conditions ---

    /**
     * Requires that a key does not exist. No right is needed to ask.
     *
     * @param name full name
     * @return this batch
     */
    public Batch ifAbsent(String name) {
        condition(IF_ABSENT, name);
        return this;
    }

    /**
     * Requires that a key exists. No right is needed to ask.
     *
     * @param name full name
     * @return this batch
     */
    public Batch ifExists(String name) {
        condition(IF_EXISTS, name);
        return this;
    }

    /**
     * Requires that a key exists and has a value, exactly as {@code put} stores it; {@link Value.None} requires that it
     * has none. The session must be able to read the key.
     *
     * @param name full name
     * @param value the value
     * @return this batch
     */
    public Batch ifValue(String name, Value value) {
        Objects.requireNonNull(value, "value");
        condition(IF_VALUE, name).word32(StoredValue.typeCode(value)).bytes(StoredValue.encode(value));
        return this;
    }

    /**
     * Requires that a key exists and has not been changed since: that the revision of its last change, which {@link
     * RegistryReader#stat} returns, is the same. The session must be able to read the key.
     *
     * @param name full name
     * @param revision the revision
     * @return this batch
     */
    public Batch ifRevision(String name, long revision) {
        condition(IF_REVISION, name).word64(revision);
        return this;
    }

    // --- Changes ---

    /**
     * Writes a value. If the key does not exist, it is created below its parent, which must exist ({@link
     * KeyNotFoundException}) unless {@link #createParents} was called. {@link Value.None} takes the value of an existing
     * key away.
     *
     * @param name full name
     * @param value the value; at most 1 MiB as it is stored
     * @return this batch
     */
    public Batch put(String name, Value value) {
        return value(PUT, name, value);
    }

    /**
     * Writes a text, as {@link #put(String, Value)} does.
     *
     * @param name full name
     * @param value the text
     * @return this batch
     */
    public Batch put(String name, String value) {
        return put(name, new Value.Text(value));
    }

    /**
     * Writes a list of texts, as {@link #put(String, Value)} does.
     *
     * @param name full name
     * @param value the texts, none of them empty
     * @return this batch
     * @throws IllegalArgumentException if a text is empty
     */
    public Batch put(String name, List<String> value) {
        return put(name, new Value.TextList(value));
    }

    /**
     * Writes a number of 32 bits, as {@link #put(String, Value)} does.
     *
     * @param name full name
     * @param value the number
     * @return this batch
     */
    public Batch put(String name, int value) {
        return put(name, new Value.Int32(value));
    }

    /**
     * Writes a number of 64 bits, as {@link #put(String, Value)} does.
     *
     * @param name full name
     * @param value the number
     * @return this batch
     */
    public Batch put(String name, long value) {
        return put(name, new Value.Int64(value));
    }

    /**
     * Writes bytes, as {@link #put(String, Value)} does.
     *
     * @param name full name
     * @param value the bytes, which are copied
     * @return this batch
     */
    public Batch put(String name, byte[] value) {
        return put(name, new Value.Bytes(value));
    }

    /**
     * Writes a boolean as a text, as {@link #put(String, Value)} does.
     *
     * @param name full name
     * @param value the boolean
     * @return this batch
     */
    public Batch put(String name, boolean value) {
        return put(name, String.valueOf(value));
    }

    /**
     * Writes a floating point number as a text, as {@link #put(String, Value)} does.
     *
     * @param name full name
     * @param value the number
     * @return this batch
     */
    public Batch put(String name, double value) {
        return put(name, String.valueOf(value));
    }

    /**
     * Writes a duration as a text, as {@link #put(String, Value)} does.
     *
     * @param name full name
     * @param value the duration
     * @return this batch
     */
    public Batch put(String name, Duration value) {
        return put(name, value.toString());
    }

    /**
     * Writes a constant of an enum as the text of its name, as {@link #put(String, Value)} does.
     *
     * @param name full name
     * @param value the constant
     * @return this batch
     */
    public Batch put(String name, Enum<?> value) {
        return put(name, value.name());
    }

    /**
     * Creates a key without a value. It must not exist ({@link KeyExistsException}).
     *
     * @param name full name
     * @return this batch
     */
    public Batch create(String name) {
        return createWith(name, new Value.None());
    }

    /**
     * Creates a key with a value. It must not exist ({@link KeyExistsException}).
     *
     * @param name full name
     * @param value the value; at most 1 MiB as it is stored
     * @return this batch
     */
    public Batch createWith(String name, Value value) {
        return value(CREATE, name, value);
    }

    /**
     * Deletes a key, which must exist ({@link KeyNotFoundException}) and have no subkeys ({@link KeyNotEmptyException}).
     *
     * @param name full name
     * @return this batch
     */
    public Batch delete(String name) {
        change(DELETE, 0, name);
        return this;
    }

    /**
     * Deletes a key, which must exist ({@link KeyNotFoundException}), with everything below it.
     *
     * @param name full name
     * @return this batch
     */
    public Batch deleteTree(String name) {
        change(DELETE, TREE, name);
        return this;
    }

    /**
     * Moves a key with everything below it, as {@link Registry#move} does.
     *
     * @param source full name
     * @param target new full name, which must not exist
     * @return this batch
     */
    public Batch move(String source, String target) {
        return transfer(MOVE, 0, source, target);
    }

    /**
     * Moves a key with everything below it, as {@link Registry#moveReplacing} does.
     *
     * @param source full name
     * @param target new full name
     * @return this batch
     */
    public Batch moveReplacing(String source, String target) {
        return transfer(MOVE, REPLACE, source, target);
    }

    /**
     * Copies a key with everything below it, as {@link Registry#copy(String, String, CopyOwner)} does.
     *
     * @param source full name
     * @param target full name of the copy, which must not exist
     * @param owner who owns the copies
     * @return this batch
     */
    public Batch copy(String source, String target, CopyOwner owner) {
        return transfer(COPY, TREE | flag(owner), source, target);
    }

    /**
     * Copies a key with everything below it, as {@link Registry#copyReplacing} does.
     *
     * @param source full name
     * @param target full name of the copy
     * @param owner who owns the copies
     * @return this batch
     */
    public Batch copyReplacing(String source, String target, CopyOwner owner) {
        return transfer(COPY, TREE | REPLACE | flag(owner), source, target);
    }

    /**
     * Changes the security of a key, which may be one that the batch creates. What the given security leaves open stays
     * as it is.
     *
     * @param name full name
     * @param security what to change
     * @return this batch
     */
    public Batch setSecurity(String name, KeySecurity security) {
        Objects.requireNonNull(security, "security");
        security.write(change(SECURITY, 0, name));
        return this;
    }

    /**
     * Changes the security of a key and of everything below it. What the given security leaves open stays as it is.
     *
     * @param name full name
     * @param security what to change
     * @return this batch
     */
    public Batch setSecurityTree(String name, KeySecurity security) {
        Objects.requireNonNull(security, "security");
        security.write(change(SECURITY, TREE, name));
        return this;
    }

    /**
     * Has the batch create missing ancestors of the keys that it puts and creates, without values and with the security
     * of the batch's new keys. By default, a missing parent is a {@link KeyNotFoundException}.
     *
     * @return this batch
     */
    public Batch createParents() {
        createsParents = true;
        return this;
    }

    /**
     * Notes in the log what this batch is for, in place of {@link RegistryOptions.Builder#note}.
     *
     * @param text the note, of which the log keeps 1024 bytes; empty for that of the session
     * @return this batch
     */
    public Batch note(String text) {
        note = Objects.requireNonNull(text, "text");
        return this;
    }

    /**
     * Makes the changes, all or nothing, if all conditions hold.
     *
     * @return the revision of the change; if the batch changes nothing, that of the state in which its conditions hold
     * @throws ConflictException if a condition does not hold; it names the first such condition
     * @throws MissingRightException if the session lacks a right that a condition or a change needs
     * @throws RegistryException as the methods of {@link Registry} that make the same changes; {@link
     *     RegistryException#key} is the key of the first change that cannot be made
     */
    public long commit() {
        DataWriter request = newKeys.write(new DataWriter().text(note).word32(createsParents ? CREATES_PARENTS : 0));
        byte[] bytes = request.word32(conditionKeys.size()).raw(conditions).raw(changes).done();
        DataReader outcome;
        try {
            outcome = Reply.checked(RegistryNatives.commit(registry.registry, bytes), null);
        } finally {
            Reference.reachabilityFence(registry);
        }
        int code = outcome.word32();
        int condition = outcome.word32();
        int change = outcome.word32();
        long revision = outcome.word64();
        if (code == ResultCode.DONE) {
            return revision;
        }
        throw RegistryException.of(code, condition >= 0 ? conditionKeys.get(condition)
                                         : change >= 0 ? changeKeys.get(change) : null, outcome.textToEnd());
    }

    private static int flag(CopyOwner owner) {
        return Objects.requireNonNull(owner, "owner") == CopyOwner.SESSION ? OWN : 0;
    }

    private DataWriter condition(int kind, String name) {
        Objects.requireNonNull(name, "name");
        conditionKeys.add(name);
        return conditions.word32(kind).text(name);
    }

    private DataWriter change(int kind, int flags, String name) {
        Objects.requireNonNull(name, "name");
        changeKeys.add(name);
        return changes.word32(kind).word32(flags).text(name);
    }

    private Batch value(int kind, String name, Value value) {
        Objects.requireNonNull(value, "value");
        change(kind, 0, name).word32(StoredValue.typeCode(value)).bytes(StoredValue.encode(value));
        return this;
    }

    private Batch transfer(int kind, int flags, String source, String target) {
        Objects.requireNonNull(target, "target");
        change(kind, flags, source).text(target);
        return this;
    }
}
