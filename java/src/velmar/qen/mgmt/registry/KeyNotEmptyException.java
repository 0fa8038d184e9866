package velmar.qen.mgmt.registry;

/** The key cannot be deleted by itself because it has subkeys (code 6). */
public final class KeyNotEmptyException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public KeyNotEmptyException(String key, String message) {
        super(ResultCode.HAS_SUBKEYS, key, message);
    }
}
