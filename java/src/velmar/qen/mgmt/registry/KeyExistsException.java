package velmar.qen.mgmt.registry;

/** There already is such a key (code 55). */
public final class KeyExistsException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public KeyExistsException(String key, String message) {
        super(ResultCode.KEY_EXISTS, key, message);
    }
}
