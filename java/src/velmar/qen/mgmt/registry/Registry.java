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
 * The cluster registry: a tree of keys, each with a value and a security.
 *
 * <p>Names are full names: levels joined by {@code "."} from the root, whose own name is {@code ""}. A key is created
 * below a parent that exists. A value is a text or a list of texts; a key without a value reads as an empty text and an
 * empty list.
 *
 * <p>There is one open registry a process. Any thread may call any method; calls take turns, and {@link #close} waits
 * for the one in progress. Interrupting a thread does not end its wait. Once a method that changes something has
 * returned, the change survives the death of the process and of the machine.
 *
 * <p>Methods throw a {@link RegistryException}, or one of its kinds, when the registry does not carry a call out;
 * {@link RegistryClosedException} after {@link #close}; {@link NullPointerException} for null arguments.
 */
public final class Registry implements AutoCloseable {
    /** The registry's data type of a text. */
    private static final int TEXT = 3;

    private static final Cleaner CLEANER = Cleaner.create();

    private final Session session;
    private final TKVNative natives;
    private final Cleaner.Cleanable cleanable;

    private Registry(Session session) {
        this.session = session;
        this.natives = session.natives();
        this.cleanable = CLEANER.register(this, session::close);
    }

    /**
     * Opens the registry that this machine's configuration names. A registry of this node alone is made when there is
     * none yet.
     *
     * @return the open registry
     * @throws IllegalStateException when this process has one open
     * @throws RegistryUnavailableException when the registry of a cluster cannot be reached
     * @throws RegistryException when the configuration is wrong, with file and line, or the storage cannot be used
     * @throws UnsatisfiedLinkError when the native library cannot be loaded
     */
    public static Registry open() {
        return open(0);
    }

    /**
     * Opens the registry as {@link #open()}, at a level.
     *
     * @param level 0 or more; the registry records it
     * @return the open registry
     * @throws IllegalStateException when this process has one open
     * @throws RegistryException as for {@link #open()}, and for a negative level
     */
    public static Registry open(int level) {
        return new Registry(new Session(level));
    }

    /** Closes the registry after the calls in progress. Closing it again does nothing. */
    @Override
    public void close() {
        // Not by the net, which does not wait for a close that another thread has begun.
        session.close();
        cleanable.clean();
    }

    /**
     * The text of a key, empty when it has no value. Of a list it is the first text.
     *
     * @param name full name
     * @return the text
     * @throws KeyNotFoundException when there is no such key
     */
    public String get(String name) {
        return find(name).orElseThrow(() -> absent(name));
    }

    /**
     * The text of a key, or another text when there is no such key.
     *
     * @param name full name
     * @param absent given back when there is no such key; may be null
     * @return the text
     */
    public String get(String name, String absent) {
        return find(name).orElse(absent);
    }

    /**
     * The text of a key.
     *
     * @param name full name
     * @return empty when there is no such key
     */
    public Optional<String> find(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> Optional.ofNullable(read(name)));
    }

    /**
     * The number that {@link #putInt} stored, a decimal text. The native methods cannot give out binary numbers.
     *
     * @param name full name
     * @return the number
     * @throws KeyNotFoundException when there is no such key
     * @throws NumberFormatException when its text is no such number
     */
    public int getInt(String name) {
        return number(name, Integer::valueOf);
    }

    /**
     * The number that {@link #putLong} or {@link #putInt} stored.
     *
     * @param name full name
     * @return the number
     * @throws KeyNotFoundException when there is no such key
     * @throws NumberFormatException when its text is no such number
     */
    public long getLong(String name) {
        return number(name, Long::valueOf);
    }

    /**
     * The texts of a key, none when it has no value. A single text reads as a list of one. Where another program has
     * stored an empty text between others, the list ends before it.
     *
     * <p>Texts are converted from the character set of the process's locale. In other sets than UTF-8, texts that
     * {@link #putList} stored read back only as far as they are plain ASCII.
     *
     * @param name full name
     * @return an unmodifiable list
     * @throws KeyNotFoundException when there is no such key
     * @throws RegistryException when a text has characters that the character set does not have
     */
    public List<String> getList(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> {
            String[] slots = session.query(name, report -> natives.getKeyValues(name, report));
            if (slots == null && readExisting(name) != null) {
                // There is a text: it is new, or it cannot be converted.
                slots = session.query(name, report -> natives.getKeyValues(name, report));
                if (slots == null) {
                    throw RegistryException.saying(ResultCode.UNKNOWN, name, "the value of key '" + name
                            + "' is no list in the character set of this process's locale");
                }
            }
            return texts(slots);
        });
    }

    /**
     * Whether a key exists.
     *
     * @param name full name
     * @return true when it does
     */
    public boolean exists(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> present(name));
    }

    /**
     * The names of a key's subkeys, one level each, in byte order.
     *
     * @param name full name
     * @return an unmodifiable list
     * @throws KeyNotFoundException when there is no such key
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
     * The full names of all keys below a key, each before its own subkeys. The stream needs the registry open, and reads
     * the subkeys of a key when it goes on after it: a key that has vanished since its siblings were read still comes,
     * but nothing below it, and a key that was made since does not.
     *
     * @param name full name
     * @return a sequential stream
     * @throws KeyNotFoundException when there is no such key
     */
    public Stream<String> walk(String name) {
        Iterator<String> names = new Walk(name, list(name));
        return StreamSupport.stream(
                Spliterators.spliteratorUnknownSize(names, Spliterator.ORDERED | Spliterator.NONNULL), false);
    }

    /**
     * The user who owns a key.
     *
     * @param name full name
     * @return empty when nobody does
     * @throws KeyNotFoundException when there is no such key
     */
    public Optional<String> owner(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> Optional.ofNullable(session.query(name, report -> natives.getUserName(name, report))));
    }

    /**
     * The group that owns a key.
     *
     * @param name full name
     * @return empty when none does
     * @throws KeyNotFoundException when there is no such key
     */
    public Optional<String> group(String name) {
        Objects.requireNonNull(name);
        return inTurn(() -> Optional.ofNullable(session.query(name, report -> natives.getGroupName(name, report))));
    }

    /**
     * Writes a text. A key that does not exist is created with {@link Security#sameAsSession()}.
     *
     * @param name full name
     * @param value the text, up to 1 MiB in modified UTF-8 with its NUL
     * @throws KeyNotFoundException when the parent does not exist
     * @throws ValueTooLargeException when the text is too long
     */
    public void put(String name, String value) {
        put(name, value, Security.sameAsSession());
    }

    /**
     * Writes a text. A key that does not exist is created with the given security.
     *
     * @param name full name
     * @param value the text, up to 1 MiB in modified UTF-8 with its NUL
     * @param security of a new key
     * @throws KeyNotFoundException when the parent does not exist
     * @throws ValueTooLargeException when the text is too long
     */
    public void put(String name, String value, Security security) {
        Objects.requireNonNull(name);
        Objects.requireNonNull(value);
        write(name, security, report -> natives.setKeyValue(name, value, security.type(), security.key(),
                                                            security.owner(), security.group(), report));
    }

    /**
     * Writes a list of texts. A key that does not exist is created with {@link Security#sameAsSession()}.
     *
     * @param name full name
     * @param values the texts, each with at least one character; together, in modified UTF-8, with a NUL after each and
     *     one more, up to 8192 bytes
     * @throws IllegalArgumentException when a text is empty, since it would end the list for its readers
     * @throws KeyNotFoundException when the parent does not exist
     * @throws ValueTooLargeException when the list is too long
     */
    public void putList(String name, List<String> values) {
        putList(name, values, Security.sameAsSession());
    }

    /**
     * Writes a list of texts. A key that does not exist is created with the given security.
     *
     * @param name full name
     * @param values the texts, as for {@link #putList(String, List)}
     * @param security of a new key
     * @throws IllegalArgumentException when a text is empty, since it would end the list for its readers
     * @throws KeyNotFoundException when the parent does not exist
     * @throws ValueTooLargeException when the list is too long
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
     * Writes a number as its decimal text. The registry's own 4- and 8-byte types store the first bytes of a text, and
     * most numbers have no text whose bytes they are, so they are not used.
     *
     * @param name full name
     * @param value the number
     * @throws KeyNotFoundException when the parent does not exist
     */
    public void putInt(String name, int value) {
        put(name, Integer.toString(value));
    }

    /**
     * Writes a number as its decimal text, as {@link #putInt} does.
     *
     * @param name full name
     * @param value the number
     * @throws KeyNotFoundException when the parent does not exist
     */
    public void putLong(String name, long value) {
        put(name, Long.toString(value));
    }

    /**
     * Creates a key without a value, with {@link Security#sameAsSession()}.
     *
     * @param name full name
     * @throws KeyExistsException when there is such a key
     * @throws KeyNotFoundException when the parent does not exist
     */
    public void create(String name) {
        create(name, Security.sameAsSession());
    }

    /**
     * Creates a key without a value. A key for another group than the session's is created as the session's first; when
     * it cannot be handed over after that, it stays.
     *
     * @param name full name
     * @param security of the key
     * @throws KeyExistsException when there is such a key
     * @throws KeyNotFoundException when the parent does not exist
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
     * Creates a key with a text. Others see it with its text from the start when its group is the session's, as with
     * {@link Security#sameAsSession()}; otherwise they may see it without a text for a moment. When the session loses
     * the right to write the key by handing it over, the key is deleted again, or stays without a text if that right is
     * lost too, and the call fails; it also stays when it cannot be handed over, as with {@link #create(String,
     * Security)}.
     *
     * @param name full name
     * @param value the text, up to 1 MiB in modified UTF-8 with its NUL
     * @param security of the key
     * @throws KeyExistsException when there is such a key, which keeps its value
     * @throws KeyNotFoundException when the parent does not exist
     * @throws ValueTooLargeException when the text is too long
     */
    public void createWith(String name, String value, Security security) {
        Objects.requireNonNull(name);
        Objects.requireNonNull(value);
        if (security.hasSessionsGroup()) {
            write(name, security, report -> natives.createAndSetKeyValue(name, value, TEXT, security.type(),
                    security.key(), security.owner(), security.group(), report));
            return;
        }
        // The native method that creates with a value gives another group's security to the working key, the root.
        inTurn(() -> {
            create(name, security);
            orUndo(() -> put(name, value, security), () -> delete(name));
        });
    }

    /**
     * Deletes a key without subkeys.
     *
     * @param name full name
     * @return whether there was such a key
     * @throws KeyNotEmptyException when it has subkeys
     */
    public boolean delete(String name) {
        return delete(name, false);
    }

    /**
     * Deletes a key with everything below it, all or nothing.
     *
     * @param name full name
     * @return whether there was such a key
     */
    public boolean deleteTree(String name) {
        return delete(name, true);
    }

    /**
     * Moves a key with everything below it, atomically.
     *
     * @param source full name
     * @param target full name that the key gets
     * @throws KeyNotFoundException when the source or the target's parent does not exist
     * @throws KeyExistsException when there is a target
     */
    public void move(String source, String target) {
        move(source, target, 0);
    }

    /**
     * Moves a key with everything below it onto another, which goes with everything below it, atomically.
     *
     * @param source full name
     * @param target full name that the key gets
     * @throws KeyNotFoundException when the source or the target's parent does not exist
     */
    public void moveReplacing(String source, String target) {
        move(source, target, 1);
    }

    /**
     * Copies a key with everything below it to a new key: values with their types, owners, groups and rights.
     *
     * @param source full name
     * @param target full name of the new key
     * @throws KeyExistsException when there is a target
     * @throws KeyNotFoundException when the source or the target's parent does not exist
     * @throws ValueTooLargeException when a value has more than 2048 bytes
     * @see #copyTree(String, String, CopyOwner)
     */
    public void copyTree(String source, String target) {
        copyTree(source, target, CopyOwner.SOURCE);
    }

    /**
     * Copies a key with everything below it to a new key. Values keep their types and, below the topmost key, keys keep
     * their owners, groups and rights.
     *
     * <p>Values have up to 2048 bytes, and full names in the source up to 265; the command {@code tkv cp -r} has no
     * such limits. Others see the copy while it grows. When it fails, what was copied is deleted again; where the
     * session has no right to do that, it stays, and the exception has the refusal among its suppressed ones.
     *
     * @param source full name
     * @param target full name of the new key
     * @param owner who owns the topmost key
     * @throws KeyExistsException when there is a target
     * @throws KeyNotFoundException when the source or the target's parent does not exist
     * @throws ValueTooLargeException when a value has more than 2048 bytes
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
     * Whether this node belongs to a cluster.
     *
     * @return true when it does
     */
    public boolean isClusterMember() {
        return inTurn(() -> session.query(null, report -> {
            natives.isCluster(report);
            return report.getBooleanResult();
        }));
    }

    /**
     * Where the registry is stored.
     *
     * @return places and whether they are shared
     */
    public Locations locations() {
        return inTurn(() -> session.query(null, report -> {
            String[] places = natives.getTKVLocations(report);
            return places == null ? null : new Locations(List.of(places), report.getBooleanResult());
        }));
    }

    /**
     * What a path can hold. Changes nothing.
     *
     * @param path an absolute path or an address
     * @return the kind of storage, and a text about it
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
     * The configured location of backups.
     *
     * @return empty when none is configured
     */
    public Optional<String> backupLocation() {
        return inTurn(() -> Optional.ofNullable(session.query(null, natives::getTKVBackupLocation))
                .filter(location -> !location.isEmpty()));
    }

    /**
     * The software patch level of the cluster.
     *
     * @return 0 when none is recorded
     * @throws RegistryException when what is recorded is no number
     */
    public int patchLevel() {
        return inTurn(() -> session.query(null, natives::getPatchLevel));
    }

    /**
     * Records the start dependencies of the high-availability daemon.
     *
     * @param mode 0, 1 or 2: the storage mode that they are for
     * @throws RegistryException for other modes
     */
    public void recordServiceDependencies(int mode) {
        inTurn(() -> session.call(null, report -> natives.setZUVEDDependencies(mode, report)));
    }

    private <T> T inTurn(Supplier<T> work) {
        try {
            return session.inTurn(work);
        } finally {
            // The net must not close the session under a call of an object that nobody holds any more.
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
            // Without the text, which may be a secret.
            throw new NumberFormatException("the text of key '" + name + "' is no number that fits");
        }
    }

    private boolean present(String name) {
        return session.query(name, report -> natives.keyExists(name, report));
    }

    /** The text of a key, null when there is none; no value and no key are both null to the native method. */
    private String read(String name) {
        String text = session.query(name, report -> natives.getKeyValue(name, report));
        if (text != null || !present(name)) {
            return text;
        }
        // The key may have been made since.
        return Objects.requireNonNullElse(session.query(name, report -> natives.getKeyValue(name, report)), "");
    }

    /** The text of a key that must exist, null when it has at most the one byte of an empty text. */
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

    /** Makes a native call that writes a key, and creates it with a security when it must. */
    private void write(String name, Security security, Consumer<Report> call) {
        Objects.requireNonNull(security);
        inTurn(() -> {
            Report report = new Report();
            call.accept(report);
            if (report.failedForSecurity() && !(security.readsKey() && report.text() != null)) {
                // Any text is about an earlier step: the security's own failures have none.
                throw RegistryException.saying(ResultCode.INVALID_ARGUMENT, name,
                        "owner or group cannot be kept for key '" + name + "' (" + security + ")");
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

    /** Does the second half of making a key, and undoes the first when that fails. */
    private static void orUndo(Runnable secondHalf, Runnable undo) {
        try {
            secondHalf.run();
        } catch (RegistryException failure) {
            try {
                undo.run();
            } catch (RegistryException kept) {
                failure.addSuppressed(kept);
            }
            throw failure;
        }
    }

    private static RegistryException absent(String name) {
        return RegistryException.saying(ResultCode.NO_SUCH_KEY, name, "key '" + name + "' does not exist");
    }

    /** Full names below a key; looks at the subkeys of a key only when it has been given out. */
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
