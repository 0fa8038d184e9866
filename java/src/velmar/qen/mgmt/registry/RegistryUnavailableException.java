package velmar.qen.mgmt.registry;

/** The registry cannot be reached (code 15). The next call tries again. */
public final class RegistryUnavailableException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public RegistryUnavailableException(String key, String message) {
        super(ResultCode.UNREACHABLE, key, message);
    }
}
