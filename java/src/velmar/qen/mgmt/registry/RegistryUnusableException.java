package velmar.qen.mgmt.registry;

/**
 * The storage cannot be used as it is configured: it is missing, of a newer format, or was replaced during the session,
 * for example (code 18). Trying again does not help; the configuration or the storage has to be changed.
 */
public final class RegistryUnusableException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public RegistryUnusableException(String key, String message) {
        super(ResultCode.UNUSABLE, key, message);
    }
}
