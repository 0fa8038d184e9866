package velmar.qen.mgmt.registry;

/** There is no such key, or no parent to create it below (code 4). */
public final class KeyNotFoundException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public KeyNotFoundException(String key, String message) {
        super(ResultCode.NO_SUCH_KEY, key, message);
    }

    /** Returns the exception for a key that was found to be absent. */
    static KeyNotFoundException of(String key) {
        String message = RegistryException.message(ResultCode.NO_SUCH_KEY, "key '" + key + "' does not exist");
        return new KeyNotFoundException(key, message);
    }
}
