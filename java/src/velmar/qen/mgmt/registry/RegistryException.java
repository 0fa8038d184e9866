package velmar.qen.mgmt.registry;

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

    RegistryException(int code, String key, String text) {
        super(text);
        this.code = code;
        this.key = key;
    }

    /**
     * Returns the registry's result code, such as 4 if a key does not exist.
     *
     * @return the code; 14 (unknown) if the registry reported none
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
     * Returns the registry's own message, which is also the message of this exception.
     *
     * @return a sentence, usually preceded by the code, such as {@code TKV-0004: key 'a.b' does not exist}
     */
    public final String text() {
        return getMessage();
    }

    /** Returns the exception for a failure without a message from the registry: the code is put before the sentence. */
    static RegistryException saying(int code, String key, String sentence) {
        return of(code, key, String.format("TKV-%04d: %s", code, sentence));
    }

    /** Returns the exception for a code. */
    static RegistryException of(int code, String key, String text) {
        return switch (code) {
            case ResultCode.ACCESS_DENIED -> new AccessDeniedException(code, key, text);
            case ResultCode.NO_SUCH_KEY -> new KeyNotFoundException(code, key, text);
            case ResultCode.INVALID_NAME -> new InvalidNameException(code, key, text);
            case ResultCode.HAS_SUBKEYS -> new KeyNotEmptyException(code, key, text);
            case ResultCode.STORAGE_FAILED -> new RegistryDamagedException(code, key, text);
            case ResultCode.BUFFER_TOO_SMALL, ResultCode.VALUE_TOO_LARGE -> new ValueTooLargeException(code, key, text);
            case ResultCode.STORAGE_FULL -> new StorageFullException(code, key, text);
            case ResultCode.UNREACHABLE -> new RegistryUnavailableException(code, key, text);
            case ResultCode.UNUSABLE -> new RegistryUnusableException(code, key, text);
            case ResultCode.BUSY -> new RegistryBusyException(code, key, text);
            case ResultCode.UNDECIDED -> new UndecidedException(code, key, text);
            case ResultCode.KEY_EXISTS -> new KeyExistsException(code, key, text);
            default -> new RegistryException(code, key, text);
        };
    }
}
