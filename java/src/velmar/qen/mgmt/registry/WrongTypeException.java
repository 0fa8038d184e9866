package velmar.qen.mgmt.registry;

import java.util.Objects;

/** The key's value is of another type than the call reads (code 8). The message names both types. */
public final class WrongTypeException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key
     * @param found what the key holds, such as "a text"
     * @param wanted what the call reads, such as "an int32"
     */
    public WrongTypeException(String key, String found, String wanted) {
        super(ResultCode.INVALID_ARGUMENT, key, text(key, found, wanted));
    }

    private static String text(String key, String found, String wanted) {
        Objects.requireNonNull(key, "key");
        Objects.requireNonNull(found, "found");
        Objects.requireNonNull(wanted, "wanted");
        return message(ResultCode.INVALID_ARGUMENT, "key '" + key + "' holds " + found + ", not " + wanted);
    }
}
