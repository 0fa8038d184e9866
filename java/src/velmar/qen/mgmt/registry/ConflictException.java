package velmar.qen.mgmt.registry;

/**
 * A condition of a batch does not hold (code 21): somebody else has changed the key. Nothing was changed. Read again
 * before repeating the change.
 */
public final class ConflictException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key in the first condition that does not hold; null if it is not known
     * @param message what does not hold
     */
    public ConflictException(String key, String message) {
        super(ResultCode.CONFLICT, key, message);
    }
}
