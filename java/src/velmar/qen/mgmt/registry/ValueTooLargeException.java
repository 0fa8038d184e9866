package velmar.qen.mgmt.registry;

/** The value is larger than the operation allows (code 10). */
public final class ValueTooLargeException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public ValueTooLargeException(String key, String message) {
        super(ResultCode.VALUE_TOO_LARGE, key, message);
    }
}
