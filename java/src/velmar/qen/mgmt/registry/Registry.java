package velmar.qen.mgmt.registry;

import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.util.ArrayDeque;
import java.util.Arrays;
import java.util.Deque;
import java.util.Iterator;
import java.util.List;
import java.util.NoSuchElementException;
import java.util.Objects;
import java.util.Optional;
import java.util.Spliterator;
import java.util.Spliterators;
import java.util.function.Consumer;
import java.util.function.Function;
import java.util.function.Supplier;
import java.util.stream.Stream;
import java.util.stream.StreamSupport;
import velmar.qen.mgmt.nativesystem.TKVNative;

/**
 * The cluster registry: a tree of keys, each with a value and a security record.
 *
 * <p>Keys are identified by their full names: levels joined by {@code "."}, starting from the root, whose own name is
 * {@code ""}. A key can only be created below a parent that exists. A value is a text or a list of texts; a key without
 * a value reads as an empty text or an empty list.
 *
 * <p>A process can have one registry open. Any thread may call any method. Calls take turns, and {@link #close} waits
 * for the call in progress; interrupting a thread does not end its wait. Once a method that changes something has
 * returned, the change survives a crash of the process and of the machine.
 *
 * <p>Methods throw a {@link RegistryException}, or a subclass, if the registry does not carry out the call; {@link
 * RegistryClosedException} after {@link #close}; {@link NullPointerException} for null arguments.
 */
public final class Registry implements AutoCloseable {
    /** The registry's data type for a text. */
    private static final int TEXT = 3;

    private static final Cleaner CLEANER = Cleaner.create();

    private final Session session;
    private final TKVNative natives;
    private final Cleaner.Cleanable cleanable;
    /** Read once, since each native query keeps its buffer; guarded by the session's turn. */
    private Locations locations;

    private Registry(Session session) {
        this.session = session;
        this.natives = session.natives();
        this.cleanable = CLEANER.register(this, session::close);
    }

    /**
     * Opens the registry that this machine's configuration names. If that is a registry of this node alone and it does
     * not exist yet, it is created.
     *
     * @return the open registry
     * @throws IllegalStateException if this process already has a registry open
     * @throws RegistryUnavailableException if the registry of a cluster cannot be reached
     * @throws RegistryUnusableException if the storage cannot be used as it is configured
     * @throws RegistryException if the configuration is wrong; the message names the file and line
     * @throws UnsatisfiedLinkError if the native library cannot be loaded
     */
    public static Registry open() {
        return open(0);
    }

    /**
     * Opens the registry as {@link #open()} does, at a level.
     *
     * @param level 0 or more; only recorded
     * @return the open registry
     * @throws IllegalStateException if this process already has a registry open
     * @throws RegistryException as for {@link #open()}, and for a negative level
     */
    public static Registry open(int level) {
        return new Registry(new Session(level));
    }

    /** Closes the registry, after waiting for the call in progress. Closing it again has no effect. */
    @Override
    public void close() {
        // Close directly: the Cleaner would not wait for a close that another thread has begun.
        session.close();
        cleanable.clean();
    }

    /**
     * Returns the text of a key: empty if the key has no value, the first text if it has a list.
     *
     * @param name full name
     * @return the text
     * @throws KeyNotFoundException if there is no such key
     */
    public String get(String name) {
        return find(name).orElseThrow(() -> absent(name));
    }

    /**
     * Returns the text of a key, or a default if there is no such key.
     *
     * @param name full name
     * @param absent the default; may be null
     * @return the text
     */
    public String get(String name, String absent) {
        return find(name).orElse(absent);
    }

    /**
     * Returns the text of a key, if the key exists.
     *
     * @param name full name
     * @return the text; empty if there is no such key
     */
    public Optional<String> find(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> Optional.ofNullable(read(name)));
    }

    /**
     * Returns the number that {@link #putInt} stored as a decimal text. Binary numbers cannot be read through the
     * native methods.
     *
     * @param name full name
     * @return the number
     * @throws KeyNotFoundException if there is no such key
     * @throws NumberFormatException if the key's text is not an {@code int}
     */
    public int getInt(String name) {
        return number(name, Integer::valueOf);
    }

    /**
     * Returns the number that {@link #putLong} or {@link #putInt} stored.
     *
     * @param name full name
     * @return the number
     * @throws KeyNotFoundException if there is no such key
     * @throws NumberFormatException if the key's text is not a {@code long}
     */
    public long getLong(String name) {
        return number(name, Long::valueOf);
    }

    /**
     * Returns the list of texts of a key, which is empty if the key has no value. A single text reads as a list of one.
     * If another program has stored an empty text in the list, the list ends before it.
     *
     * <p>Texts are converted from the character set of the process's locale. Unless that is UTF-8, only plain ASCII
     * texts that {@link #putList} stored read back unchanged.
     *
     * @param name full name
     * @return an unmodifiable list
     * @throws KeyNotFoundException if there is no such key
     * @throws RegistryException if a text cannot be converted from the character set
     */
    public List<String> getList(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> {
            String[] slots = session.query(name, report -> natives.getKeyValues(name, report));
            if (slots == null && readExisting(name) != null) {
                // There is a text. Either it was stored just now, or it cannot be converted.
                slots = session.query(name, report -> natives.getKeyValues(name, report));
                if (slots == null) {
                    throw RegistryException.saying(ResultCode.UNKNOWN, name, "the value of key '" + name
                            + "' cannot be read as a list in the character set of this process's locale");
                }
            }
            return texts(slots);
        });
    }

    /**
     * Returns whether a key exists.
     *
     * @param name full name
     * @return true if it exists
     */
    public boolean exists(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> present(name));
    }

    /**
     * Returns the names of a key's subkeys, each a single level, in byte order.
     *
     * @param name full name
     * @return an unmodifiable list
     * @throws KeyNotFoundException if there is no such key
     */
    public List<String> list(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> {
            List<String> names = subkeys(name);
            if (names.isEmpty() && !present(name)) {
                throw absent(name);
            }
            return names;
        });
    }

    /**
     * Returns the full names of all keys below a key, each before its own subkeys. The stream reads the subkeys of a
     * key after it has delivered that key, so the registry must stay open while the stream is in use. Changes made
     * meanwhile show in part: a key deleted after its siblings were read is still delivered, without anything below it,
     * and a key created after that is not.
     *
     * @param name full name
     * @return a sequential stream
     * @throws KeyNotFoundException if there is no such key
     */
    public Stream<String> walk(String name) {
        Iterator<String> names = new Walk(name, list(name));
        return StreamSupport.stream(
                Spliterators.spliteratorUnknownSize(names, Spliterator.ORDERED | Spliterator.NONNULL), false);
    }

    /**
     * Returns the user who owns a key. A user without a name is identified by number.
     *
     * @param name full name
     * @return the user; empty if the key has no owner
     * @throws KeyNotFoundException if there is no such key
     */
    public Optional<String> owner(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> Optional.ofNullable(session.query(name, report -> natives.getUserName(name, report))));
    }

    /**
     * Returns the group that owns a key. A group without a name is identified by number.
     *
     * @param name full name
     * @return the group; empty if the key has none
     * @throws KeyNotFoundException if there is no such key
     */
    public Optional<String> group(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> Optional.ofNullable(session.query(name, report -> natives.getGroupName(name, report))));
    }

    /**
     * Writes a text. If the key does not exist, it is created with {@link Security#sameAsSession()}.
     *
     * @param name full name
     * @param value the text; at most 1 MiB in modified UTF-8, including a terminating NUL
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the text is too long
     */
    public void put(String name, String value) {
        put(name, value, Security.sameAsSession());
    }

    /**
     * Writes a text. If the key does not exist, it is created with the given security.
     *
     * @param name full name
     * @param value the text; at most 1 MiB in modified UTF-8, including a terminating NUL
     * @param security the security of a new key; an existing key keeps its own
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the text is too long
     */
    public void put(String name, String value, Security security) {
        Objects.requireNonNull(name);
        Objects.requireNonNull(value);
        write(name, security, report -> natives.setKeyValue(name, value, security.type(), security.key(),
                                                            security.owner(), security.group(), report));
    }

    /**
     * Writes a list of texts. If the key does not exist, it is created with {@link Security#sameAsSession()}.
     *
     * @param name full name
     * @param values the texts, none of them empty; at most 8192 bytes in modified UTF-8, counting a NUL after each text
     *     and one more at the end
     * @throws IllegalArgumentException if a text is empty, because readers would take it for the end of the list
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the list is too long
     */
    public void putList(String name, List<String> values) {
        putList(name, values, Security.sameAsSession());
    }

    /**
     * Writes a list of texts. If the key does not exist, it is created with the given security.
     *
     * @param name full name
     * @param values the texts, as for {@link #putList(String, List)}
     * @param security the security of a new key; an existing key keeps its own
     * @throws IllegalArgumentException if a text is empty, because readers would take it for the end of the list
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the list is too long
     */
    public void putList(String name, List<String> values, Security security) {
        Objects.requireNonNull(name);
        String[] texts = values.stream().map(Objects::requireNonNull).toArray(String[]::new);
        if (List.of(texts).contains("")) {
            throw new IllegalArgumentException("an empty text would end the list of key '" + name + "'");
        }
        write(name, security, report -> natives.setKeyValues(name, texts, security.type(), security.key(),
                                                             security.owner(), security.group(), report));
    }

    /**
     * Writes a number as a decimal text. The registry's own 4- and 8-byte types are not used: the native methods fill
     * them with the first bytes of a text, and cannot represent every number in this way.
     *
     * @param name full name
     * @param value the number
     * @throws KeyNotFoundException if the parent does not exist
     */
    public void putInt(String name, int value) {
        put(name, Integer.toString(value));
    }

    /**
     * Writes a number as a decimal text, as {@link #putInt} does.
     *
     * @param name full name
     * @param value the number
     * @throws KeyNotFoundException if the parent does not exist
     */
    public void putLong(String name, long value) {
        put(name, Long.toString(value));
    }

    /**
     * Creates a key without a value, with {@link Security#sameAsSession()}.
     *
     * @param name full name
     * @throws KeyExistsException if the key already exists
     * @throws KeyNotFoundException if the parent does not exist
     */
    public void create(String name) {
        create(name, Security.sameAsSession());
    }

    /**
     * Creates a key without a value. If the security names another group than the session's, the key is first created
     * for the session and then handed over; if the second step fails, the key stays as the session's.
     *
     * @param name full name
     * @param security the security of the key
     * @throws KeyExistsException if the key already exists
     * @throws KeyNotFoundException if the parent does not exist
     */
    public void create(String name, Security security) {
        Objects.requireNonNull(name);
        if (name.isEmpty()) {
            throw RegistryException.saying(ResultCode.KEY_EXISTS, name, "the root exists");
        }
        write(name, security, report -> natives.createKey(name, security.type(), security.key(), security.owner(),
                                                          security.group(), report));
    }

    /**
     * Creates a key with a text. If the key's group is the session's, as with {@link Security#sameAsSession()}, the key
     * and its text appear at once. Otherwise others may see the key without a text for a moment: it is created as by
     * {@link #create(String, Security)}, handed over, and then written. If the session may not write the key after
     * handing it over, the call fails and the key is deleted again; if the session may not delete it either, the key
     * stays without a text.
     *
     * @param name full name
     * @param value the text; at most 1 MiB in modified UTF-8, including a terminating NUL
     * @param security the security of the key
     * @throws KeyExistsException if the key already exists; it keeps its value
     * @throws KeyNotFoundException if the parent does not exist
     * @throws ValueTooLargeException if the text is too long
     */
    public void createWith(String name, String value, Security security) {
        Objects.requireNonNull(name);
        Objects.requireNonNull(value);
        if (security.hasSessionsGroup()) {
            write(name, security, report -> natives.createAndSetKeyValue(name, value, TEXT, security.type(),
                    security.key(), security.owner(), security.group(), report));
            return;
        }
        // For another group, the native method that creates a key with a value would change the security of the root.
        inTurn(() -> {
            create(name, security);
            orUndo(() -> put(name, value, security), () -> delete(name));
        });
    }

    /**
     * Deletes a key that has no subkeys.
     *
     * @param name full name
     * @return whether there was such a key
     * @throws KeyNotEmptyException if the key has subkeys
     */
    public boolean delete(String name) {
        return delete(name, false);
    }

    /**
     * Deletes a key and everything below it, all or nothing.
     *
     * @param name full name
     * @return whether there was such a key
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
     */
    public void move(String source, String target) {
        move(source, target, 0);
    }

    /**
     * Moves a key and everything below it, atomically. If the target exists, it is replaced, together with everything
     * below it. A key cannot replace one that it lies below.
     *
     * @param source full name
     * @param target new full name
     * @throws KeyNotFoundException if the source or the target's parent does not exist
     */
    public void moveReplacing(String source, String target) {
        move(source, target, 1);
    }

    /**
     * Copies a key and everything below it to a new key: values with their types, owners, groups and rights.
     *
     * @param source full name
     * @param target full name of the new key
     * @throws KeyExistsException if the target already exists
     * @throws KeyNotFoundException if the source or the target's parent does not exist
     * @throws ValueTooLargeException if a value has more than 2048 bytes
     * @see #copyTree(String, String, CopyOwner)
     */
    public void copyTree(String source, String target) {
        copyTree(source, target, CopyOwner.SOURCE);
    }

    /**
     * Copies a key and everything below it to a new key. Values keep their types and, below the topmost key, keys keep
     * their owners, groups and rights.
     *
     * <p>A value may have at most 2048 bytes, and a full name in the source at most 265; the command {@code tkv cp -r}
     * has no such limits. Others see the copy while it grows. If the copy fails for any reason, what was copied is
     * deleted again. If that fails too, for lack of a right, for example, the copy stays as far as it got, and the
     * second failure is a suppressed exception of the first.
     *
     * @param source full name
     * @param target full name of the new key
     * @param owner who owns the topmost key
     * @throws KeyExistsException if the target already exists
     * @throws KeyNotFoundException if the source or the target's parent does not exist
     * @throws ValueTooLargeException if a value has more than 2048 bytes
     */
    public void copyTree(String source, String target, CopyOwner owner) {
        Objects.requireNonNull(target);
        Objects.requireNonNull(owner);
        if (source.isEmpty() || target.startsWith(source + ".")) {
            throw RegistryException.saying(ResultCode.MOVE_INTO_ITSELF, source,
                                           "key '" + source + "' cannot be copied into itself");
        }
        inTurn(() -> {
            if (!present(source)) {
                throw absent(source);
            }
            create(target);
            orUndo(() -> TreeCopy.run(natives, source, target, owner), () -> deleteTree(target));
        });
    }

    /**
     * Returns whether this node belongs to a cluster.
     *
     * @return true if it does
     */
    public boolean isClusterMember() {
        return inTurn(() -> session.query(null, report -> {
            natives.isCluster(report);
            return report.getBooleanResult();
        }));
    }

    /**
     * Returns where the registry is stored, according to the configuration at the first call.
     *
     * @return the locations, and whether the registry is shared among nodes
     */
    public Locations locations() {
        return inTurn(() -> {
            if (locations == null) {
                locations = session.query(null, report -> {
                    String[] places = natives.getTKVLocations(report);
                    return places == null ? null : new Locations(List.of(places), report.getBooleanResult());
                });
            }
            return locations;
        });
    }

    /**
     * Returns what kind of registry can be stored at a path. Changes nothing.
     *
     * @param path an absolute path or an address
     * @return the kind of storage, and a message about it
     */
    public Storage storageAt(String path) {
        Objects.requireNonNull(path);
        return inTurn(() -> {
            Report report = new Report();
            Storage.Kind kind = switch (natives.checkTKVStorageType(path, report)) {
                case 0 -> Storage.Kind.EMBEDDED;
                case 2 -> Storage.Kind.DISTRIBUTED;
                default -> Storage.Kind.UNUSABLE;
            };
            return new Storage(kind, Objects.requireNonNullElse(report.text(), ""));
        });
    }

    /**
     * Returns the configured location of backups.
     *
     * @return the location; empty if none is configured
     */
    public Optional<String> backupLocation() {
        return inTurn(() -> Optional.ofNullable(session.query(null, natives::getTKVBackupLocation))
                .filter(location -> !location.isEmpty()));
    }

    /**
     * Returns the software patch level of the cluster.
     *
     * @return the level; 0 if none is recorded
     * @throws RegistryException if the recorded level is not a number
     */
    public int patchLevel() {
        return inTurn(() -> session.query(null, natives::getPatchLevel));
    }

    /**
     * Records the start dependencies of the high-availability daemon.
     *
     * @param mode the storage mode that the dependencies are for: 0, 1 or 2
     * @throws RegistryException for any other mode
     */
    public void recordServiceDependencies(int mode) {
        inTurn(() -> session.call(null, report -> natives.setZUVEDDependencies(mode, report)));
    }

    private <T> T inTurn(Supplier<T> work) {
        try {
            return session.inTurn(work);
        } finally {
            // The Cleaner must not close the session during a call on an object that has become unreachable.
            Reference.reachabilityFence(this);
        }
    }

    private void inTurn(Runnable work) {
        inTurn(() -> {
            work.run();
            return null;
        });
    }

    private <N extends Number> N number(String name, Function<String, N> reading) {
        String text = get(name);
        try {
            return reading.apply(text);
        } catch (NumberFormatException e) {
            // The message leaves out the text, which may be a secret.
            throw new NumberFormatException("the text of key '" + name + "' is not a number in range");
        }
    }

    private boolean present(String name) {
        return session.query(name, report -> natives.keyExists(name, report));
    }

    /** Returns the text of a key, null if there is no such key. The native method has null for an empty text, too. */
    private String read(String name) {
        String text = session.query(name, report -> natives.getKeyValue(name, report));
        if (text != null || !present(name)) {
            return text;
        }
        // The key may have been created since.
        return Objects.requireNonNullElse(session.query(name, report -> natives.getKeyValue(name, report)), "");
    }

    /** Returns the text of a key that must exist, null if it is empty. */
    private String readExisting(String name) {
        if (!present(name)) {
            throw absent(name);
        }
        return session.query(name, report -> natives.getKeyValue(name, report));
    }

    private static List<String> texts(String[] slots) {
        return slots == null ? List.of() : Arrays.stream(slots).takeWhile(Objects::nonNull).toList();
    }

    private List<String> subkeys(String name) {
        String[] names = session.query(name, report -> natives.listSubKeys(name, report));
        return names == null ? List.of() : List.of(names);
    }

    /** Makes a native call that writes a key and may have to create it with the given security. */
    private void write(String name, Security security, Consumer<Report> call) {
        Objects.requireNonNull(security);
        inTurn(() -> {
            Report report = new Report();
            call.accept(report);
            if (report.failedForSecurity() && !(security.readsKey() && report.text() != null)) {
                // A text belongs to an earlier step, since a failure of the security itself has none.
                throw RegistryException.saying(ResultCode.INVALID_ARGUMENT, name,
                        "the owner or group for key '" + name + "' cannot be stored (" + security + ")");
            }
            if (report.failed()) {
                throw report.exception(report.failedForSecurity() ? security.key() : name);
            }
        });
    }

    private boolean delete(String name, boolean withSubkeys) {
        Objects.requireNonNull(name);
        return inTurn(() -> {
            boolean present = present(name);
            session.call(name, report -> natives.deleteKey(name, withSubkeys, report));
            return present;
        });
    }

    private void move(String source, String target, int flags) {
        Objects.requireNonNull(source);
        int dot = target.lastIndexOf('.');
        String parent = dot < 0 ? "" : target.substring(0, dot);
        String level = target.substring(dot + 1);
        inTurn(() -> {
            Report report = new Report();
            natives.moveKey(source, parent, level, flags, report);
            if (report.failed()) {
                throw report.exception(report.isAboutName() && present(source) ? target : source);
            }
        });
    }

    /** Runs the second half of an operation, and undoes the first half if that fails. */
    private static void orUndo(Runnable secondHalf, Runnable undo) {
        try {
            secondHalf.run();
        } catch (RuntimeException | Error failure) {
            try {
                undo.run();
            } catch (RuntimeException | Error second) {
                failure.addSuppressed(second);
            }
            throw failure;
        }
    }

    private static RegistryException absent(String name) {
        return RegistryException.saying(ResultCode.NO_SUCH_KEY, name, "key '" + name + "' does not exist");
    }

    /** Iterates over the full names below a key, reading the subkeys of a key only after the key was delivered. */
    private final class Walk implements Iterator<String> {
        private final Deque<Iterator<String>> levels = new ArrayDeque<>();
        private String unread;

        Walk(String name, List<String> subkeys) {
            push(name, subkeys);
        }

        private void push(String name, List<String> subkeys) {
            String prefix = name.isEmpty() ? "" : name + ".";
            levels.push(subkeys.stream().map(subkey -> prefix + subkey).iterator());
        }

        @Override
        public boolean hasNext() {
            if (unread != null) {
                String parent = unread;
                push(parent, inTurn(() -> subkeys(parent)));
                unread = null;
            }
            while (!levels.isEmpty() && !levels.peek().hasNext()) {
                levels.pop();
            }
            return !levels.isEmpty();
        }

        @Override
        public String next() {
            if (!hasNext()) {
                throw new NoSuchElementException();
            }
            unread = levels.peek().next();
            return unread;
        }
    }
}
