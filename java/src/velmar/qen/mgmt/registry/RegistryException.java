package velmar.qen.mgmt.registry;

/**
 * A call that the registry did not carry out. Subclasses tell the kinds that programs react to; this class itself
 * stands for the others.
 *
 * <p>It is an {@link IllegalStateException} since all kinds tell of a state of the registry in which the call cannot
 * go on, the closed one included.
 */
public class RegistryException extends IllegalStateException {
    private static final long serialVersionUID = 1;

    static final int ACCESS_DENIED = 2;
    static final int INVALID_HANDLE = 3;
    static final int NOT_FOUND = 4;
    static final int INVALID_NAME = 5;
    static final int NOT_EMPTY = 6;
    static final int DAMAGED = 7;
    static final int INVALID_ARGUMENT = 8;
    static final int BUFFER_TOO_SMALL = 9;
    static final int VALUE_TOO_LARGE = 10;
    static final int STORAGE_FULL = 11;
    /** Given where the native side has told no code. */
    static final int UNKNOWN = 14;
    static final int UNREACHABLE = 15;
    static final int INTO_ITSELF = 17;
    static final int EXISTS = 55;

    /** The registry's result code. */
    private final int code;
    /** Null when the failure is not about one key. */
    private final String key;

    RegistryException(int code, String key, String text) {
        super(text);
        this.code = code;
        this.key = key;
    }

    /**
     * The registry's result code, such as 4 for a key that does not exist.
     *
     * @return 14 when the registry told none
     */
    public final int code() {
        return code;
    }

    /**
     * The full name of the key that was asked for.
     *
     * @return null when the failure is not about one key
     */
    public final String key() {
        return key;
    }

    /**
     * The registry's own text, which is also the message.
     *
     * @return a sentence, mostly with the code in front, such as {@code TKV-0004: key 'a.b' does not exist}
     */
    public final String text() {
        return getMessage();
    }

    /** The exception for a failure that no text of the registry tells of: the sentence gets the code in front. */
    static RegistryException saying(int code, String key, String sentence) {
        return of(code, key, String.format("TKV-%04d: %s", code, sentence));
    }

    /** The exception for a code. */
    static RegistryException of(int code, String key, String text) {
        return switch (code) {
            case ACCESS_DENIED -> new AccessDeniedException(code, key, text);
            case NOT_FOUND -> new KeyNotFoundException(code, key, text);
            case INVALID_NAME -> new InvalidNameException(code, key, text);
            case NOT_EMPTY -> new KeyNotEmptyException(code, key, text);
            case DAMAGED -> new RegistryDamagedException(code, key, text);
            case BUFFER_TOO_SMALL, VALUE_TOO_LARGE -> new ValueTooLargeException(code, key, text);
            case STORAGE_FULL -> new StorageFullException(code, key, text);
            case UNREACHABLE -> new RegistryUnavailableException(code, key, text);
            case EXISTS -> new KeyExistsException(code, key, text);
            default -> new RegistryException(code, key, text);
        };
    }
}
