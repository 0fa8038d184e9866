package velmar.qen.mgmt.registry;

import java.time.Duration;
import java.util.EnumSet;
import java.util.List;
import java.util.Optional;
import java.util.OptionalDouble;
import java.util.OptionalInt;
import java.util.OptionalLong;
import java.util.function.Function;
import java.util.stream.Stream;

/**
 * Reading keys and values. {@link Registry} reads what is there at each call, and {@link Snapshot} one state.
 *
 * <p>There are three methods for each type: {@code get}, which throws if there is no such key; {@code find}, which
 * returns an empty optional if there is no such key or the key has no value; and {@code get} with a default, which
 * returns that instead. All three throw {@link WrongTypeException} if the key has a value of another type; so does the
 * first if the key has no value.
 *
 * <p>The registry itself has texts, lists of texts, numbers of 32 and of 64 bits, and bytes. A boolean, a floating point
 * number, a duration and a constant of an enum are texts, which other programs and operators can read and write.
 */
public interface RegistryReader {
    /**
     * Returns the value of a key, if the key exists.
     *
     * @param name full name
     * @return the value, {@link Value.None} if the key has none; empty if there is no such key
     * @throws MissingRightException if the session may not read the key
     */
    Optional<Value> findValue(String name);

    /**
     * Returns whether a key exists. No right is needed for that.
     *
     * @param name full name
     * @return whether there is such a key
     */
    boolean exists(String name);

    /**
     * Returns the names of a key's subkeys, each a single level, in byte order.
     *
     * @param name full name
     * @return an unmodifiable list
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if the session may not list the subkeys
     */
    List<String> list(String name);

    /**
     * Returns the keys below a key on one state of the registry, each before its own subkeys, those in byte order. The
     * keys are held in memory outside the Java heap until they are read; close the stream unless it is read to its end.
     *
     * @param name full name; this key itself is not part of the stream
     * @param depth how many levels below the key to visit: 1 for its subkeys only
     * @return a sequential stream, to be closed
     * @throws IllegalArgumentException if the depth is negative
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if there is a key among them whose subkeys the session may not list
     */
    Stream<Entry> walk(String name, int depth);

    /**
     * Returns what is known of a key.
     *
     * @param name full name
     * @return type and size of the value, rights, security, and the last change
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if the session may not read the key
     */
    KeyInfo stat(String name);

    /**
     * Returns what the session may do with a key. No right is needed for that.
     *
     * @param name full name
     * @return a new set
     * @throws KeyNotFoundException if there is no such key
     */
    EnumSet<Right> rights(String name);

    /**
     * Returns the value of a key.
     *
     * @param name full name
     * @return the value, {@link Value.None} if the key has none
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if the session may not read the key
     */
    default Value value(String name) {
        return findValue(name).orElseThrow(() -> KeyNotFoundException.of(name));
    }

    /**
     * Returns the keys below a key on one state of the registry, as {@link #walk(String, int)} does, at any depth.
     *
     * @param name full name; this key itself is not part of the stream
     * @return a sequential stream, to be closed
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if there is a key among them whose subkeys the session may not list
     */
    default Stream<Entry> walk(String name) {
        return walk(name, Integer.MAX_VALUE);
    }

    /**
     * Returns the subkeys of a key on one state of the registry, in byte order, with their values.
     *
     * @param name full name
     * @return a sequential stream, to be closed
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if the session may not list the subkeys
     */
    default Stream<Entry> entries(String name) {
        return walk(name, 1);
    }

    /**
     * Returns the owner, the group and the rights of a key.
     *
     * @param name full name
     * @return the security, complete
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if the session may not read the key
     */
    default KeySecurity security(String name) {
        return stat(name).security();
    }

    /**
     * Returns the user who owns a key. A user without a name is identified by number.
     *
     * @param name full name
     * @return the user; empty if the key has no owner
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if the session may not read the key
     */
    default Optional<String> owner(String name) {
        return security(name).owner();
    }

    /**
     * Returns the group that owns a key. A group without a name is identified by number.
     *
     * @param name full name
     * @return the group; empty if the key has none
     * @throws KeyNotFoundException if there is no such key
     * @throws MissingRightException if the session may not read the key
     */
    default Optional<String> group(String name) {
        return security(name).group();
    }

    /**
     * Returns the text of a key.
     *
     * @param name full name
     * @return the text
     * @throws KeyNotFoundException if there is no such key
     * @throws WrongTypeException if the key does not have a text
     * @throws MissingRightException if the session may not read the key
     */
    default String getText(String name) {
        return get(name, "a text", Readings::text);
    }

    /**
     * Returns the text of a key, or a default if there is none.
     *
     * @param name full name
     * @param absent the default; may be null
     * @return the text
     * @throws WrongTypeException if the key has a value that is not a text
     * @throws MissingRightException if the session may not read the key
     */
    default String getText(String name, String absent) {
        return get(name, "a text", absent, Readings::text);
    }

    /**
     * Returns the text of a key, if there is one.
     *
     * @param name full name
     * @return the text; empty if there is no such key, or it has no value
     * @throws WrongTypeException if the key has a value that is not a text
     * @throws MissingRightException if the session may not read the key
     */
    default Optional<String> findText(String name) {
        return Optional.ofNullable(get(name, "a text", null, Readings::text));
    }

    /**
     * Returns the list of texts of a key.
     *
     * @param name full name
     * @return the texts, unmodifiable
     * @throws KeyNotFoundException if there is no such key
     * @throws WrongTypeException if the key does not have a list
     * @throws MissingRightException if the session may not read the key
     */
    default List<String> getList(String name) {
        return get(name, "a list", Readings::list);
    }

    /**
     * Returns the list of texts of a key, or a default if there is none.
     *
     * @param name full name
     * @param absent the default; may be null
     * @return the texts, unmodifiable, or the default
     * @throws WrongTypeException if the key has a value that is not a list
     * @throws MissingRightException if the session may not read the key
     */
    default List<String> getList(String name, List<String> absent) {
        return get(name, "a list", absent, Readings::list);
    }

    /**
     * Returns the list of texts of a key, if there is one.
     *
     * @param name full name
     * @return the texts, unmodifiable; empty if there is no such key, or it has no value
     * @throws WrongTypeException if the key has a value that is not a list
     * @throws MissingRightException if the session may not read the key
     */
    default Optional<List<String>> findList(String name) {
        return Optional.ofNullable(get(name, "a list", null, Readings::list));
    }

    /**
     * Returns the number of a key, of 32 bits.
     *
     * @param name full name
     * @return the number
     * @throws KeyNotFoundException if there is no such key
     * @throws WrongTypeException if the key does not have an int32
     * @throws MissingRightException if the session may not read the key
     */
    default int getInt(String name) {
        return get(name, "an int32", Readings::int32);
    }

    /**
     * Returns the number of a key, of 32 bits, or a default if there is none.
     *
     * @param name full name
     * @param absent the default
     * @return the number
     * @throws WrongTypeException if the key has a value that is not an int32
     * @throws MissingRightException if the session may not read the key
     */
    default int getInt(String name, int absent) {
        return get(name, "an int32", absent, Readings::int32);
    }

    /**
     * Returns the number of a key, of 32 bits, if there is one.
     *
     * @param name full name
     * @return the number; empty if there is no such key, or it has no value
     * @throws WrongTypeException if the key has a value that is not an int32
     * @throws MissingRightException if the session may not read the key
     */
    default OptionalInt findInt(String name) {
        Integer number = get(name, "an int32", null, Readings::int32);
        return number == null ? OptionalInt.empty() : OptionalInt.of(number);
    }

    /**
     * Returns the number of a key, of 64 or of 32 bits.
     *
     * @param name full name
     * @return the number
     * @throws KeyNotFoundException if there is no such key
     * @throws WrongTypeException if the key does not have an int64
     * @throws MissingRightException if the session may not read the key
     */
    default long getLong(String name) {
        return get(name, "an int64", Readings::int64);
    }

    /**
     * Returns the number of a key, of 64 or of 32 bits, or a default if there is none.
     *
     * @param name full name
     * @param absent the default
     * @return the number
     * @throws WrongTypeException if the key has a value that is not an int64
     * @throws MissingRightException if the session may not read the key
     */
    default long getLong(String name, long absent) {
        return get(name, "an int64", absent, Readings::int64);
    }

    /**
     * Returns the number of a key, of 64 or of 32 bits, if there is one.
     *
     * @param name full name
     * @return the number; empty if there is no such key, or it has no value
     * @throws WrongTypeException if the key has a value that is not an int64
     * @throws MissingRightException if the session may not read the key
     */
    default OptionalLong findLong(String name) {
        Long number = get(name, "an int64", null, Readings::int64);
        return number == null ? OptionalLong.empty() : OptionalLong.of(number);
    }

    /**
     * Returns the bytes of a key.
     *
     * @param name full name
     * @return a new array
     * @throws KeyNotFoundException if there is no such key
     * @throws WrongTypeException if the value of the key is not of type bytes
     * @throws MissingRightException if the session may not read the key
     */
    default byte[] getBytes(String name) {
        return get(name, "bytes", Readings::bytes);
    }

    /**
     * Returns the bytes of a key, or a default if there is none.
     *
     * @param name full name
     * @param absent the default; may be null
     * @return a new array, or the default
     * @throws WrongTypeException if the key has a value of another type
     * @throws MissingRightException if the session may not read the key
     */
    default byte[] getBytes(String name, byte[] absent) {
        return get(name, "bytes", absent, Readings::bytes);
    }

    /**
     * Returns the bytes of a key, if there is one.
     *
     * @param name full name
     * @return a new array; empty if there is no such key, or it has no value
     * @throws WrongTypeException if the key has a value of another type
     * @throws MissingRightException if the session may not read the key
     */
    default Optional<byte[]> findBytes(String name) {
        return Optional.ofNullable(get(name, "bytes", null, Readings::bytes));
    }

    /**
     * Returns the boolean of a key: the text {@code true} or {@code false}.
     *
     * @param name full name
     * @return the boolean
     * @throws KeyNotFoundException if there is no such key
     * @throws WrongTypeException if the key does not have a boolean
     * @throws MissingRightException if the session may not read the key
     */
    default boolean getBoolean(String name) {
        return get(name, "a boolean", Readings::bool);
    }

    /**
     * Returns the boolean of a key: the text {@code true} or {@code false}, or a default if there is none.
     *
     * @param name full name
     * @param absent the default
     * @return the boolean
     * @throws WrongTypeException if the key has a value that is not a boolean
     * @throws MissingRightException if the session may not read the key
     */
    default boolean getBoolean(String name, boolean absent) {
        return get(name, "a boolean", absent, Readings::bool);
    }

    /**
     * Returns the boolean of a key: the text {@code true} or {@code false}, if there is one.
     *
     * @param name full name
     * @return the boolean; empty if there is no such key, or it has no value
     * @throws WrongTypeException if the key has a value that is not a boolean
     * @throws MissingRightException if the session may not read the key
     */
    default Optional<Boolean> findBoolean(String name) {
        return Optional.ofNullable(get(name, "a boolean", null, Readings::bool));
    }

    /**
     * Returns the floating point number of a key: a text that {@link Double#valueOf(String)} takes.
     *
     * @param name full name
     * @return the number
     * @throws KeyNotFoundException if there is no such key
     * @throws WrongTypeException if the key does not have a floating point number
     * @throws MissingRightException if the session may not read the key
     */
    default double getDouble(String name) {
        return get(name, "a floating point number", Readings::float64);
    }

    /**
     * Returns the floating point number of a key, a text that {@link Double#valueOf(String)} takes, or a default if
     * there is none.
     *
     * @param name full name
     * @param absent the default
     * @return the number
     * @throws WrongTypeException if the key has a value that is not a floating point number
     * @throws MissingRightException if the session may not read the key
     */
    default double getDouble(String name, double absent) {
        return get(name, "a floating point number", absent, Readings::float64);
    }

    /**
     * Returns the floating point number of a key, a text that {@link Double#valueOf(String)} takes, if there is one.
     *
     * @param name full name
     * @return the number; empty if there is no such key, or it has no value
     * @throws WrongTypeException if the key has a value that is not a floating point number
     * @throws MissingRightException if the session may not read the key
     */
    default OptionalDouble findDouble(String name) {
        Double number = get(name, "a floating point number", null, Readings::float64);
        return number == null ? OptionalDouble.empty() : OptionalDouble.of(number);
    }

    /**
     * Returns the duration of a key, a text that {@link Duration#parse} takes.
     *
     * @param name full name
     * @return the duration
     * @throws KeyNotFoundException if there is no such key
     * @throws WrongTypeException if the key does not have a duration
     * @throws MissingRightException if the session may not read the key
     */
    default Duration getDuration(String name) {
        return get(name, "a duration", Readings::duration);
    }

    /**
     * Returns the duration of a key, a text that {@link Duration#parse} takes, or a default if there is none.
     *
     * @param name full name
     * @param absent the default; may be null
     * @return the duration
     * @throws WrongTypeException if the key has a value that is not a duration
     * @throws MissingRightException if the session may not read the key
     */
    default Duration getDuration(String name, Duration absent) {
        return get(name, "a duration", absent, Readings::duration);
    }

    /**
     * Returns the duration of a key, a text that {@link Duration#parse} takes, if there is one.
     *
     * @param name full name
     * @return the duration; empty if there is no such key, or it has no value
     * @throws WrongTypeException if the key has a value that is not a duration
     * @throws MissingRightException if the session may not read the key
     */
    default Optional<Duration> findDuration(String name) {
        return Optional.ofNullable(get(name, "a duration", null, Readings::duration));
    }

    /**
     * Returns the constant of an enum whose name is the text of a key.
     *
     * @param <E> the enum
     * @param name full name
     * @param type the enum
     * @return the constant
     * @throws KeyNotFoundException if there is no such key
     * @throws WrongTypeException if the key does not have the name of a constant
     * @throws MissingRightException if the session may not read the key
     */
    default <E extends Enum<E>> E getEnum(String name, Class<E> type) {
        return get(name, Readings.nameOf(type), value -> Readings.constant(value, type));
    }

    /**
     * Returns the constant of an enum whose name is the text of a key, or a default if there is none.
     *
     * @param <E> the enum
     * @param name full name
     * @param absent the default
     * @return the constant
     * @throws WrongTypeException if the key has a value that is not the name of a constant
     * @throws MissingRightException if the session may not read the key
     */
    default <E extends Enum<E>> E getEnum(String name, E absent) {
        Class<E> type = absent.getDeclaringClass();
        return get(name, Readings.nameOf(type), absent, value -> Readings.constant(value, type));
    }

    /**
     * Returns the constant of an enum whose name is the text of a key, if there is one.
     *
     * @param <E> the enum
     * @param name full name
     * @param type the enum
     * @return the constant; empty if there is no such key, or it has no value
     * @throws WrongTypeException if the key has a value that is not the name of a constant
     * @throws MissingRightException if the session may not read the key
     */
    default <E extends Enum<E>> Optional<E> findEnum(String name, Class<E> type) {
        return Optional.ofNullable(get(name, Readings.nameOf(type), null, value -> Readings.constant(value, type)));
    }

    private <T> T get(String name, String wanted, Function<Value, T> reading) {
        Value value = value(name);
        T read = reading.apply(value);
        if (read == null) {
            throw new WrongTypeException(name, Readings.phrase(value), wanted);
        }
        return read;
    }

    private <T> T get(String name, String wanted, T absent, Function<Value, T> reading) {
        Value value = findValue(name).orElse(null);
        if (value == null || value instanceof Value.None) {
            return absent;
        }
        T read = reading.apply(value);
        if (read == null) {
            throw new WrongTypeException(name, Readings.phrase(value), wanted);
        }
        return read;
    }
}
