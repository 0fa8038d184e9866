package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.nio.file.Path;
import java.time.Duration;
import java.util.List;
import java.util.Map;
import java.util.Objects;
import java.util.Optional;
import java.util.concurrent.Executor;
import java.util.concurrent.ThreadLocalRandom;
import java.util.concurrent.locks.LockSupport;
import java.util.function.BiFunction;
import java.util.function.Consumer;
import java.util.function.UnaryOperator;

/**
 * The cluster registry: a tree of keys, each with a value and a security.
 *
 * <p>Keys are identified by their full names: levels joined by {@code "."}, starting from the root, whose own name is
 * {@code ""}. A key can only be created below a parent that exists; {@link #ensure} creates what is missing. Who may do
 * what with a key is described by its {@link KeySecurity}.
 *
 * <pre>{@code
 * try (Registry registry = Registry.open()) {
 *     registry.ensure("app");
 *     registry.put("app.name", "billing");
 *     registry.put("app.port", 8080);
 *     int port = registry.getInt("app.port");
 * }
 * }</pre>
 *
 * <p>A process can have any number of registries open, and one registry any number of times; each is closed on its own.
 * Any thread may call any method at any time, also while another closes the registry. Calls that read do not wait for
 * each other. Every call is atomic: it reads one state of the registry, or makes its change completely or not at all.
 * Once a method that changes something has returned, the change survives a crash of the process and of the machine.
 * Interrupting a thread does not end its call.
 *
 * <p>Methods throw a {@link RegistryException}, or a subclass, if the registry does not carry out the call; {@link
 * RegistryClosedException} after {@link #close}; {@link NullPointerException} for null arguments.
 */
public final class Registry extends NativeReader implements AutoCloseable {
    private static final String PATCH_LEVEL = "SYSTEM.version.patch";

    /** The longest pause after the first conflict of an update; it grows with each one. */
    private static final long PAUSE_NANOS = 200_000;
    private static final int MOST_PAUSES = 50;

    private final Duration patience;
    private final Cleaner.Cleanable cleanable;

    /** Null if the registry does not number its states, and once it is closed. */
    private volatile KnownKeys known;

    private Registry(long handle, Duration patience, Runnable afterClosing) {
        super(handle, RegistryNatives.PRESENT);
        this.patience = patience;
        this.cleanable = CLEANER.register(this, () -> {
            RegistryNatives.close(handle);
            afterClosing.run();
        });
        LatestState latest = LatestState.of(handle, CLEANER);
        this.known = latest == null ? null : new KnownKeys(latest);
    }

    private static Registry open(byte[] request, RegistryOptions options, Runnable afterClosing) {
        NativeLibrary.load();
        long handle = Reply.checked(RegistryNatives.open(request), null).word64();
        return new Registry(handle, options.patience(), afterClosing);
    }

    private static void nothing() {}

    /**
     * Opens the registry that this machine's configuration names. If that is a registry of this node alone and it does
     * not exist yet, it is created.
     *
     * @return the open registry
     * @throws RegistryUnavailableException if the registry of a cluster cannot be reached
     * @throws RegistryUnusableException if the storage cannot be used as it is configured
     * @throws RegistryException if the configuration is wrong; the message names the file and line
     * @throws UnsatisfiedLinkError if the native library cannot be loaded
     */
    public static Registry open() {
        return open(RegistryOptions.DEFAULTS);
    }

    /**
     * Opens the registry that this machine's configuration names, as {@link #open()} does, with options.
     *
     * @param options how to open it
     * @return the open registry
     * @throws RegistryException as for {@link #open()}
     */
    public static Registry open(RegistryOptions options) {
        return open(options.request(), options, Registry::nothing);
    }

    /**
     * Opens the registry that a configuration file names, instead of the machine's.
     *
     * @param configuration the file
     * @return the open registry
     * @throws RegistryException as for {@link #open()}
     */
    public static Registry open(Path configuration) {
        return open(configuration, RegistryOptions.DEFAULTS);
    }

    /**
     * Opens the registry that a configuration file names, as {@link #open(Path)} does, with options.
     *
     * @param configuration the file
     * @param options how to open it
     * @return the open registry
     * @throws RegistryException as for {@link #open()}
     */
    public static Registry open(Path configuration, RegistryOptions options) {
        return open(options.requestForConfiguration(configuration), options, Registry::nothing);
    }

    /**
     * Opens the registry in a directory, whatever is configured. The directory is created, for this user alone, if its
     * parent exists.
     *
     * @param directory the directory, which must not be on a network file system
     * @return the open registry
     * @throws RegistryUnusableException if the directory cannot hold a registry
     */
    public static Registry at(Path directory) {
        return at(directory, RegistryOptions.DEFAULTS);
    }

    /**
     * Opens the registry in a directory, as {@link #at(Path)} does, with options.
     *
     * @param directory the directory, which must not be on a network file system
     * @param options how to open it
     * @return the open registry
     * @throws RegistryUnusableException if the directory cannot hold a registry
     */
    public static Registry at(Path directory, RegistryOptions options) {
        return open(options.requestForDirectory(directory), options, Registry::nothing);
    }

    /**
     * Opens a new, empty registry in a directory of its own for temporary files, for tests. Closing the registry removes
     * the directory.
     *
     * @return the open registry
     * @throws UncheckedIOException if no directory can be created
     */
    public static Registry temporary() {
        TemporaryDirectory directory;
        try {
            directory = TemporaryDirectory.create();
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
        try {
            RegistryOptions options = RegistryOptions.DEFAULTS;
            return open(options.requestForDirectory(directory.path()), options, directory::remove);
        } catch (RuntimeException | Error e) {
            directory.remove();
            throw e;
        }
    }

    /**
     * Closes the registry with its snapshots and watches, after waiting for the calls in progress, but not for events.
     * Closing it again has no effect. Streams that were opened before can still be read.
     */
    @Override
    public void close() {
        known = null;
        // Close directly: the Cleaner does not wait for a close that another thread has begun.
        RegistryNatives.close(registry);
        cleanable.clean();
    }

    // --- States ---

    /**
     * Returns the revision of the latest state: the number of the last change of anything in the registry. Revisions
     * grow with each change, not always by one. No right is needed to know them.
     *
     * @return the revision
     */
    public long revision() {
        try {
            return Reply.checked(RegistryNatives.revision(registry), null).word64();
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /**
     * Returns the latest state, for reading any number of keys as they are at one time.
     *
     * @return the snapshot, to be closed
     */
    public Snapshot snapshot() {
        return new Snapshot(this, RegistryNatives.LATEST);
    }

    /**
     * Returns a former state, for reading keys as they were right after a change. How many states are retained is
     * configured.
     *
     * @param revision the revision of the change
     * @return the snapshot, to be closed
     * @throws IllegalArgumentException if the revision is negative
     * @throws RegistryException with code 8 if that state is no longer retained, or does not exist yet; the message says
     *     which states are
     */
    public Snapshot at(long revision) {
        if (revision < 0) {
            throw new IllegalArgumentException("a revision below 0: " + revision);
        }
        return new Snapshot(this, revision);
    }

    // --- Reading ---

    @Override
    public Optional<Value> findValue(String name) {
        Value value = read(name, KnownKeys::value, Registry::readValue);
        return value == KnownKeys.ABSENT ? Optional.empty() : Optional.of(value);
    }

    /** Creates no object if the value is known. */
    @Override
    public Value value(String name) {
        Value value = read(name, KnownKeys::value, Registry::readValue);
        if (value == KnownKeys.ABSENT) {
            throw KeyNotFoundException.of(name);
        }
        return value;
    }

    @Override
    public boolean exists(String name) {
        return read(name, KnownKeys::exists, (registry, key, keys) -> registry.readExistence(key));
    }

    @Override
    public List<String> list(String name) {
        return read(name, KnownKeys::subkeys, Registry::readList);
    }

    /** Reads a key of a registry. The known keys, which may be null, are told what was read. */
    private interface Reading<T> {
        T of(Registry registry, String name, KnownKeys keys);
    }

    /** Returns what is known of a key or, if that is null, what reading returns. */
    private <T> T read(String name, BiFunction<KnownKeys, String, T> recalling, Reading<T> reading) {
        Objects.requireNonNull(name, "name");
        KnownKeys keys = known;
        if (keys == null) {
            return reading.of(this, name, null);
        }
        try {
            T found = recalling.apply(keys, name);
            return found != null ? found : reading.of(this, name, keys);
        } catch (InternalError unreadable) {
            // The registry's file was truncated, and with it the memory of the state's number. The JVM reports that at
            // its next opportunity. Go on without known keys: the next call to native code finds out what has happened.
            known = null;
            return reading.of(this, name, null);
        }
    }

    private Value readValue(String name, KnownKeys keys) {
        if (keys == null) {
            return super.findValue(name).orElse(KnownKeys.ABSENT);
        }
        byte[] reply;
        try {
            reply = RegistryNatives.latestValue(registry, name);
        } finally {
            Reference.reachabilityFence(this);
        }
        DataReader found = Reply.checked(reply, name);
        long state = found.word64();
        Value value = found.atEnd() ? KnownKeys.ABSENT : found.valueToEnd(found.word32());
        keys.note(name, state, value, reply.length);
        return value;
    }

    private boolean readExistence(String name) {
        return super.exists(name);
    }

    private List<String> readList(String name, KnownKeys keys) {
        if (keys == null) {
            return super.list(name);
        }
        byte[] reply;
        try {
            reply = RegistryNatives.latestList(registry, name);
        } finally {
            Reference.reachabilityFence(this);
        }
        DataReader found = Reply.checked(reply, name);
        long state = found.word64();
        List<String> subkeys = texts(found);
        keys.note(name, state, subkeys, reply.length);
        return subkeys;
    }

    // --- Writing values ---

    /**
     * Writes a text. If the key does not exist, it is created with {@link KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the text; at most 1 MiB as it is stored
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the value is too large
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, String value) {
        put(name, new Value.Text(value), KeySecurity.inherited());
    }

    /**
     * Writes a list of texts. If the key does not exist, it is created with {@link KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the texts, none of them empty; at most 1 MiB as they are stored
     * @throws IllegalArgumentException if a text is empty, because readers would take it for the end of the list
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the value is too large
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, List<String> value) {
        put(name, new Value.TextList(value), KeySecurity.inherited());
    }

    /**
     * Writes a number of 32 bits. If the key does not exist, it is created with {@link KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the number
     * @throws KeyNotFoundException if the parent does not exist
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, int value) {
        put(name, new Value.Int32(value), KeySecurity.inherited());
    }

    /**
     * Writes a number of 64 bits. If the key does not exist, it is created with {@link KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the number
     * @throws KeyNotFoundException if the parent does not exist
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, long value) {
        put(name, new Value.Int64(value), KeySecurity.inherited());
    }

    /**
     * Writes bytes. If the key does not exist, it is created with {@link KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the bytes, at most 1 MiB
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the value is too large
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, byte[] value) {
        put(name, new Value.Bytes(value), KeySecurity.inherited());
    }

    /**
     * Writes a boolean, as the text {@code true} or {@code false}. If the key does not exist, it is created with
     * {@link KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the boolean
     * @throws KeyNotFoundException if the parent does not exist
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, boolean value) {
        put(name, new Value.Text(String.valueOf(value)), KeySecurity.inherited());
    }

    /**
     * Writes a floating point number, as a text. If the key does not exist, it is created with {@link
     * KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the number
     * @throws KeyNotFoundException if the parent does not exist
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, double value) {
        put(name, new Value.Text(String.valueOf(value)), KeySecurity.inherited());
    }

    /**
     * Writes a duration, as a text. If the key does not exist, it is created with {@link KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the duration
     * @throws KeyNotFoundException if the parent does not exist
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, Duration value) {
        put(name, new Value.Text(value.toString()), KeySecurity.inherited());
    }

    /**
     * Writes a constant of an enum, as the text of its name. If the key does not exist, it is created with {@link
     * KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the constant
     * @throws KeyNotFoundException if the parent does not exist
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, Enum<?> value) {
        put(name, new Value.Text(value.name()), KeySecurity.inherited());
    }

    /**
     * Writes a value, as {@link #put(String, Value, KeySecurity)} does, with {@link KeySecurity#inherited()}.
     *
     * @param name full name
     * @param value the value; at most 1 MiB as it is stored
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the value is too large
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, Value value) {
        put(name, value, KeySecurity.inherited());
    }

    /**
     * Writes a text. If the key does not exist, it is created with the given security.
     *
     * @param name full name
     * @param value the text; at most 1 MiB as it is stored
     * @param security the security of a new key; an existing key keeps its own
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the text is too long
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, String value, KeySecurity security) {
        put(name, new Value.Text(value), security);
    }

    /**
     * Writes a value. If the key does not exist, it is created with the given security. {@link Value.None} takes the
     * value of an existing key away.
     *
     * @param name full name
     * @param value the value; at most 1 MiB as it is stored
     * @param security the security of a new key; an existing key keeps its own
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the value is too large
     * @throws MissingRightException if the session may not write the key or, if it does not exist, create it
     */
    public void put(String name, Value value, KeySecurity security) {
        if (value instanceof Value.None) {
            clear(name, security);
        } else {
            put(name, value, 0, security);
        }
    }

    /**
     * Creates a key without a value, with {@link KeySecurity#inherited()}.
     *
     * @param name full name
     * @throws KeyExistsException if the key already exists
     * @throws KeyNotFoundException if the parent does not exist
     * @throws MissingRightException if the session may not create the key
     */
    public void create(String name) {
        create(name, KeySecurity.inherited());
    }

    /**
     * Creates a key without a value.
     *
     * @param name full name
     * @param security the security of the key
     * @throws KeyExistsException if the key already exists
     * @throws KeyNotFoundException if the parent does not exist
     * @throws MissingRightException if the session may not create the key
     */
    public void create(String name, KeySecurity security) {
        put(name, new Value.None(), RegistryNatives.PUT_NEW_ONLY, security);
    }

    /**
     * Creates a key with a text.
     *
     * @param name full name
     * @param value the text; at most 1 MiB as it is stored
     * @param security the security of the key
     * @throws KeyExistsException if the key already exists; it keeps its value
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the text is too long
     * @throws MissingRightException if the session may not create the key
     */
    public void createWith(String name, String value, KeySecurity security) {
        createWith(name, new Value.Text(value), security);
    }

    /**
     * Creates a key with a value.
     *
     * @param name full name
     * @param value the value; at most 1 MiB as it is stored
     * @param security the security of the key
     * @throws KeyExistsException if the key already exists; it keeps its value
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the value is too large
     * @throws MissingRightException if the session may not create the key
     */
    public void createWith(String name, Value value, KeySecurity security) {
        put(name, value, RegistryNatives.PUT_NEW_ONLY, security);
    }

    /**
     * Creates a key and its ancestors, as far as they are missing, without values and with {@link
     * KeySecurity#inherited()}.
     *
     * @param name full name
     * @throws MissingRightException if the session may not create what is missing
     */
    public void ensure(String name) {
        ensure(name, KeySecurity.inherited());
    }

    /**
     * Creates a key and its ancestors, as far as they are missing, without values.
     *
     * @param name full name
     * @param security the security of what is missing; existing keys keep their own
     * @throws MissingRightException if the session may not create what is missing
     */
    public void ensure(String name, KeySecurity security) {
        put(name, new Value.None(), RegistryNatives.PUT_CREATES_PARENTS, security);
    }

    // --- Changing keys ---

    /**
     * Changes the security of a key. What the given security leaves open stays as it is.
     *
     * @param name full name
     * @param security what to change
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if the session may not change the security
     */
    public void setSecurity(String name, KeySecurity security) {
        setSecurity(name, security, false);
    }

    /**
     * Changes the security of a key and of everything below it, all or nothing. What the given security leaves open
     * stays as it is.
     *
     * @param name full name
     * @param security what to change
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if there is a key among them whose security the session may not change
     */
    public void setSecurityTree(String name, KeySecurity security) {
        setSecurity(name, security, true);
    }

    /**
     * Deletes a key that has no subkeys.
     *
     * @param name full name
     * @return whether there was such a key
     * @throws KeyNotEmptyException if the key has subkeys
     * @throws MissingRightException if the session may not delete the key
     * @throws RegistryException with code 8 if it is the root
     */
    public boolean delete(String name) {
        return delete(name, false);
    }

    /**
     * Deletes a key and everything below it, all or nothing.
     *
     * @param name full name
     * @return whether there was such a key
     * @throws MissingRightException if there is a key among them that the session may not delete
     * @throws RegistryException with code 8 if it is the root
     */
    public boolean deleteTree(String name) {
        return delete(name, true);
    }

    /**
     * Moves a key and everything below it, atomically.
     *
     * @param source full name
     * @param target new full name
     * @throws KeyNotFoundException if the source or the target's parent does not exist
     * @throws KeyExistsException if the target already exists
     * @throws MissingRightException if the session may not delete the source or create the target
     * @throws RegistryException with code 17 if the key would be moved to itself or below itself; 8 if it is the root
     */
    public void move(String source, String target) {
        move(source, target, false);
    }

    /**
     * Moves a key and everything below it, atomically. If the target exists, it is replaced, together with everything
     * below it. A key cannot replace one that it lies below.
     *
     * @param source full name
     * @param target new full name
     * @throws KeyNotFoundException if the source or the target's parent does not exist
     * @throws MissingRightException if the session may not delete the source or what it replaces, or create the target
     * @throws RegistryException with code 17 if the key would be moved to itself, below itself, or in place of a key
     *     above it; 8 if it is the root
     */
    public void moveReplacing(String source, String target) {
        move(source, target, true);
    }

    /**
     * Copies a key and everything below it, atomically: values with their types, owners, groups and rights.
     *
     * @param source full name
     * @param target full name of the new key
     * @throws KeyExistsException if the target already exists
     * @throws KeyNotFoundException if the source or the target's parent does not exist
     * @throws MissingRightException if there is a key among them that the session may not read or list, or if it may not
     *     create the target
     * @throws RegistryException with code 17 if the key would be copied to itself or below itself
     */
    public void copy(String source, String target) {
        copy(source, target, CopyOwner.SOURCE);
    }

    /**
     * Copies a key and everything below it, atomically: values with their types, and rights.
     *
     * @param source full name
     * @param target full name of the new key
     * @param owner who owns the copies
     * @throws KeyExistsException if the target already exists
     * @throws KeyNotFoundException if the source or the target's parent does not exist
     * @throws MissingRightException as for {@link #copy(String, String)}
     * @throws RegistryException with code 17, as for {@link #copy(String, String)}
     */
    public void copy(String source, String target, CopyOwner owner) {
        copy(source, target, owner, 0);
    }

    /**
     * Copies a key and everything below it, atomically. If the target exists, it is replaced, together with everything
     * below it. A key cannot replace one that it lies below.
     *
     * @param source full name
     * @param target full name of the copy
     * @param owner who owns the copies
     * @throws KeyNotFoundException if the source or the target's parent does not exist
     * @throws MissingRightException as for {@link #copy(String, String)}, and if the session may not delete what is
     *     replaced
     * @throws RegistryException with code 17 if the key would be copied to itself, below itself, or in place of a key
     *     above it
     */
    public void copyReplacing(String source, String target, CopyOwner owner) {
        copy(source, target, owner, RegistryNatives.COPY_REPLACES);
    }

    // --- Changing together ---

    /**
     * Begins changes that are made together, under conditions. Keys that they create have {@link
     * KeySecurity#inherited()}.
     *
     * @return an empty batch
     */
    public Batch batch() {
        return batch(KeySecurity.inherited());
    }

    /**
     * Begins changes that are made together, under conditions.
     *
     * @param newKeys the security of keys that the batch creates
     * @return an empty batch
     */
    public Batch batch(KeySecurity newKeys) {
        return new Batch(this, Objects.requireNonNull(newKeys, "newKeys"));
    }

    /**
     * Replaces the value of a key by what a function makes of it. No change that others make at the same time is lost: if
     * the key has changed before the new value could be written, the function is applied again, to the value of then. It
     * can therefore be called several times, and should have no side effects. If the key does not exist, the function is
     * given {@link Value.None}, and the key is created with {@link KeySecurity#inherited()}. If the function returns an
     * equal value, nothing is written.
     *
     * <pre>{@code
     * registry.update("app.count", value -> new Value.Int32(value instanceof Value.Int32 old ? old.number() + 1 : 1));
     * }</pre>
     *
     * @param name full name
     * @param operator the function; what it throws, this method throws
     * @return the value that was written
     * @throws ConflictException if others keep changing the key for as long as a call may take; see {@link
     *     RegistryOptions.Builder#timeout}. Without such an option, that is 30 seconds
     * @throws KeyNotFoundException if the parent does not exist
     * @throws MissingRightException if the session may not read and write the key or, if it does not exist, create it
     */
    public Value update(String name, UnaryOperator<Value> operator) {
        Objects.requireNonNull(operator, "operator");
        long begin = System.nanoTime();
        for (int attempt = 1;; attempt++) {
            Batch condition = batch();
            Value value = read(name, condition);
            Value next = Objects.requireNonNull(operator.apply(value), "the operator's result");
            if (next.equals(value)) {
                return value;
            }
            try {
                condition.put(name, next).commit();
                return next;
            } catch (ConflictException e) {
                if (System.nanoTime() - begin >= patience.toNanos()) {
                    throw e;
                }
            }
            LockSupport.parkNanos(ThreadLocalRandom.current().nextLong(PAUSE_NANOS * Math.min(attempt, MOST_PAUSES)));
        }
    }

    /** Reads a value, and makes it a condition that the key is still the same. */
    private Value read(String name, Batch condition) {
        Objects.requireNonNull(name, "name");
        byte[] reply;
        try {
            reply = RegistryNatives.read(registry, RegistryNatives.PRESENT, name);
        } finally {
            Reference.reachabilityFence(this);
        }
        if (Reply.code(reply) == ResultCode.NO_SUCH_KEY) {
            condition.ifAbsent(name);
            return new Value.None();
        }
        DataReader found = Reply.checked(reply, name);
        condition.ifRevision(name, found.word64());
        return found.valueToEnd(found.word32());
    }

    // --- Watching ---

    /**
     * Begins to read the changes that are made from now on to a key and to what is below it.
     *
     * @param name full name; there need not be such a key yet
     * @param depth how many levels below the key to watch: 0 for the key alone
     * @return the reader, to be closed
     * @throws IllegalArgumentException if the depth is negative
     */
    public EventReader events(String name, int depth) {
        return events(name, depth, revision());
    }

    /**
     * Begins to read the changes to a key and to what is below it that were made after a revision, such as that of the
     * {@link Snapshot} in which the program has read the key.
     *
     * @param name full name; there need not be such a key yet
     * @param depth how many levels below the key to watch: 0 for the key alone
     * @param after the revision
     * @return the reader, to be closed
     * @throws IllegalArgumentException if the depth or the revision is negative
     */
    public EventReader events(String name, int depth, long after) {
        Objects.requireNonNull(name, "name");
        if (depth < 0 || after < 0) {
            throw new IllegalArgumentException("a depth or a revision below 0: " + Math.min(depth, after));
        }
        return new EventReader(this, name, depth, after).begun();
    }

    /**
     * Has a listener told of the changes that are made from now on to a key and to what is below it.
     *
     * @param name full name; there need not be such a key yet
     * @param depth how many levels below the key to watch: 0 for the key alone
     * @param executor calls the listener; {@code Runnable::run} calls it in a thread of the watch's own
     * @param listener is called with one event at a time
     * @return the watch, to be closed
     * @throws IllegalArgumentException if the depth is negative
     */
    public Watch watch(String name, int depth, Executor executor, Consumer<? super RegistryEvent> listener) {
        return watch(name, depth, revision(), executor, listener);
    }

    /**
     * Has a listener told of the changes to a key and to what is below it that were made after a revision, such as that of
     * the {@link Snapshot} in which the program has read the key.
     *
     * <pre>{@code
     * try (Snapshot state = registry.snapshot()) {
     *     configure(state);
     *     watch = registry.watch("app", 1, state.revision(), executor, event -> reconfigure());
     * }
     * }</pre>
     *
     * @param name full name; there need not be such a key yet
     * @param depth how many levels below the key to watch: 0 for the key alone
     * @param after the revision
     * @param executor calls the listener; {@code Runnable::run} calls it in a thread of the watch's own
     * @param listener is called with one event at a time
     * @return the watch, to be closed
     * @throws IllegalArgumentException if the depth or the revision is negative
     */
    public Watch watch(String name, int depth, long after, Executor executor,
                       Consumer<? super RegistryEvent> listener) {
        Objects.requireNonNull(executor, "executor");
        Objects.requireNonNull(listener, "listener");
        Watch watch = new Watch(events(name, depth, after), after, executor, listener);
        watch.start();
        return watch;
    }

    // --- The registry as a whole ---

    /**
     * Returns the user on whose behalf the registry is open.
     *
     * @return the name, or number if the user has no name
     */
    public String user() {
        return description().user();
    }

    /**
     * Returns the primary group of the session.
     *
     * @return the name, or number if the group has no name
     */
    public String group() {
        return description().group();
    }

    /**
     * Returns whether this node belongs to a cluster, according to the configuration with which the registry was opened.
     *
     * @return true if it does
     */
    public boolean isClusterMember() {
        return description().inCluster();
    }

    /**
     * Returns where the registry is stored.
     *
     * @return the locations, and whether the registry is shared among nodes
     */
    public Locations locations() {
        return description().locations();
    }

    /**
     * Returns the configured location of backups.
     *
     * @return the location; empty if none is configured
     */
    public Optional<String> backupLocation() {
        return Optional.of(description().backupLocation()).filter(location -> !location.isEmpty());
    }

    /**
     * Returns what kind of registry can be stored at a path. Changes nothing.
     *
     * @param path an absolute path or an address
     * @return the kind of storage, and a message about it
     */
    public Storage storageAt(String path) {
        Objects.requireNonNull(path, "path");
        description();
        byte[] reply = RegistryNatives.checkLocation(path);
        return switch (Reply.code(reply)) {
            case ResultCode.DONE -> new Storage(Storage.Kind.EMBEDDED, "");
            case ResultCode.DISTRIBUTED -> new Storage(Storage.Kind.DISTRIBUTED, Reply.message(reply));
            default -> new Storage(Storage.Kind.UNUSABLE, Reply.message(reply));
        };
    }

    /**
     * Returns the software patch level of the cluster.
     *
     * @return the level; 0 if none is recorded
     * @throws RegistryException if what is recorded is not a level
     */
    public int patchLevel() {
        Value value = findValue(PATCH_LEVEL).orElse(new Value.None());
        Long level = value instanceof Value.None ? Long.valueOf(0) : levelIn(value);
        if (level == null || level < 0 || level > Integer.MAX_VALUE) {
            throw RegistryException.of(ResultCode.INVALID_ARGUMENT, PATCH_LEVEL,
                                       "key '" + PATCH_LEVEL + "' holds no patch level");
        }
        return level.intValue();
    }

    private static Long levelIn(Value value) {
        try {
            return value instanceof Value.Text text ? Long.valueOf(text.text().strip()) : Readings.int64(value);
        } catch (NumberFormatException e) {
            return null;
        }
    }

    /**
     * Records the start dependencies of the high-availability daemon.
     *
     * @param mode the storage mode that the dependencies are for: 0, 1 or 2
     * @throws RegistryException for any other mode
     */
    public void recordServiceDependencies(int mode) {
        try {
            Reply.checked(RegistryNatives.recordServiceDependencies(registry, mode), null);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    // --- Calls ---

    private Description description() {
        try {
            return Description.read(Reply.checked(RegistryNatives.describe(registry), null));
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    private byte[] tryPut(String name, Value value, int flags, KeySecurity security) {
        Objects.requireNonNull(name, "name");
        Objects.requireNonNull(value, "value");
        Objects.requireNonNull(security, "security");
        return tryPut(Map.of(name, value), flags, security);
    }

    private byte[] tryPut(Map<String, Value> values, int flags, KeySecurity security) {
        DataWriter request = security.write(new DataWriter().word32(flags));
        values.forEach((name, value) ->
                request.text(name).word32(StoredValue.typeCode(value)).bytes(StoredValue.encode(value)));
        try {
            return RegistryNatives.put(registry, request.done());
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /** Writes values, and creates keys and their ancestors as far as they are missing; all or nothing. */
    void putTogether(Map<String, Value> values, KeySecurity security) {
        String key = values.size() == 1 ? values.keySet().iterator().next() : null;
        Reply.checked(tryPut(values, RegistryNatives.PUT_CREATES_PARENTS, security), key);
    }

    private void put(String name, Value value, int flags, KeySecurity security) {
        Reply.checked(tryPut(name, value, flags, security), name);
    }

    /** Takes the value of a key away, or creates the key. Others may create or delete it at the same time. */
    private void clear(String name, KeySecurity security) {
        byte[] reply = tryPut(name, new Value.None(), RegistryNatives.PUT_NEW_ONLY, security);
        while (Reply.code(reply) == ResultCode.KEY_EXISTS) {
            try {
                reply = RegistryNatives.clear(registry, name);
            } finally {
                Reference.reachabilityFence(this);
            }
            if (Reply.code(reply) == ResultCode.NO_SUCH_KEY) {
                reply = tryPut(name, new Value.None(), RegistryNatives.PUT_NEW_ONLY, security);
            }
        }
        Reply.checked(reply, name);
    }

    private void setSecurity(String name, KeySecurity security, boolean recursive) {
        Objects.requireNonNull(name, "name");
        byte[] request = security.write(new DataWriter()).done();
        try {
            Reply.checked(RegistryNatives.changeSecurity(registry, name, request, recursive ? 1 : 0), name);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    private boolean delete(String name, boolean recursive) {
        Objects.requireNonNull(name, "name");
        byte[] reply;
        try {
            reply = RegistryNatives.remove(registry, name, recursive ? 1 : 0);
        } finally {
            Reference.reachabilityFence(this);
        }
        if (Reply.code(reply) == ResultCode.NO_SUCH_KEY) {
            return false;
        }
        Reply.checked(reply, name);
        return true;
    }

    private void move(String source, String target, boolean replace) {
        Objects.requireNonNull(source, "source");
        Objects.requireNonNull(target, "target");
        try {
            checkTransfer(RegistryNatives.move(registry, source, target, replace ? 1 : 0), source, target);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    private void copy(String source, String target, CopyOwner owner, long flags) {
        Objects.requireNonNull(source, "source");
        Objects.requireNonNull(target, "target");
        Objects.requireNonNull(owner, "owner");
        long all = flags | (owner == CopyOwner.SESSION ? RegistryNatives.COPY_IS_OWN : 0);
        try {
            checkTransfer(RegistryNatives.copy(registry, source, target, all), source, target);
        } finally {
            Reference.reachabilityFence(this);
        }
    }

    /** Throws if a move or a copy has failed. A failure about a name is about the target if the source exists. */
    private void checkTransfer(byte[] reply, String source, String target) {
        switch (Reply.code(reply)) {
            case ResultCode.DONE -> { }
            case ResultCode.NO_SUCH_KEY, ResultCode.INVALID_NAME, ResultCode.KEY_EXISTS ->
                throw Reply.failure(reply, isPresent(source) ? target : source);
            default -> throw Reply.failure(reply, source);
        }
    }

    private boolean isPresent(String name) {
        return RegistryNatives.exists(registry, RegistryNatives.PRESENT, name) == null;
    }
}
