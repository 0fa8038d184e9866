package velmar.qen.mgmt.registry;

import java.util.Objects;

/**
 * Thrown when the registry does not carry out a call. Subclasses represent the kinds of failure that programs react to;
 * this class itself represents all others.
 *
 * <p>It extends {@link IllegalStateException} because every kind is about a state of the registry, closed or otherwise,
 * in which the call cannot proceed.
 */
public class RegistryException extends IllegalStateException {
    private static final long serialVersionUID = 1;

    /** The registry's result code. */
    private final int code;
    /** Null if the failure is not about a single key. */
    private final String key;

    /**
     * Creates an exception.
     *
     * @param code the registry's result code
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public RegistryException(int code, String key, String message) {
        super(Objects.requireNonNull(message, "message"));
        this.code = code;
        this.key = key;
    }

    /**
     * Returns the registry's result code, such as 4 if a key does not exist.
     *
     * @return the code
     */
    public final int code() {
        return code;
    }

    /**
     * Returns the full name of the key that the call was about.
     *
     * @return the name; null if the failure is not about a single key
     */
    public final String key() {
        return key;
    }

    /**
     * Returns the registry's message, which is also the message of this exception.
     *
     * @return a sentence, preceded by the code, such as {@code TKV-0004: key 'a.b' does not exist}
     */
    public final String text() {
        return getMessage();
    }

    /** Returns a message that begins with the code. Control characters, which names can contain, are shown as "?". */
    static String message(int code, String sentence) {
        StringBuilder text = new StringBuilder(String.format("TKV-%04d: ", code));
        sentence.codePoints().forEach(c -> text.appendCodePoint(Character.isISOControl(c) ? '?' : c));
        return text.toString();
    }

    /** Returns the exception for a code, whose message is the code and a sentence. */
    static RegistryException of(int code, String key, String sentence) {
        String text = message(code, sentence);
        return switch (code) {
            case ResultCode.ACCESS_DENIED -> new MissingRightException(key, text);
            case ResultCode.INVALID_HANDLE -> new RegistryClosedException(text);
            case ResultCode.NO_SUCH_KEY -> new KeyNotFoundException(key, text);
            case ResultCode.INVALID_NAME -> new InvalidNameException(key, text);
            case ResultCode.HAS_SUBKEYS -> new KeyNotEmptyException(key, text);
            case ResultCode.STORAGE_FAILED -> new RegistryDamagedException(key, text);
            case ResultCode.VALUE_TOO_LARGE -> new ValueTooLargeException(key, text);
            case ResultCode.STORAGE_FULL -> new StorageFullException(key, text);
            case ResultCode.UNREACHABLE -> new RegistryUnavailableException(key, text);
            case ResultCode.UNUSABLE -> new RegistryUnusableException(key, text);
            case ResultCode.BUSY -> new RegistryBusyException(key, text);
            case ResultCode.UNDECIDED -> new UndecidedException(key, text);
            case ResultCode.CONFLICT -> new ConflictException(key, text);
            case ResultCode.KEY_EXISTS -> new KeyExistsException(key, text);
            default -> new RegistryException(code, key, text);
        };
    }
}
