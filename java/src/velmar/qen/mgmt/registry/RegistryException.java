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

    /** Given where the native side has told no code. */
    static final int UNKNOWN = 14;
    static final int INVALID_ARGUMENT = 8;
    static final int MOVE_INTO_ITSELF = 17;

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

    /** The exception for a code. */
    static RegistryException of(int code, String key, String text) {
        return switch (code) {
            case 2 -> new AccessDeniedException(code, key, text);
            case 4 -> new KeyNotFoundException(code, key, text);
            case 5 -> new InvalidNameException(code, key, text);
            case 6 -> new KeyNotEmptyException(code, key, text);
            case 7 -> new RegistryDamagedException(code, key, text);
            case 9, 10 -> new ValueTooLargeException(code, key, text);
            case 11 -> new StorageFullException(code, key, text);
            case 15 -> new RegistryUnavailableException(code, key, text);
            case 55 -> new KeyExistsException(code, key, text);
            default -> new RegistryException(code, key, text);
        };
    }
}
