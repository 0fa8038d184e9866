package velmar.qen.mgmt.registry;

/** The name has an empty level or a NUL, or is too long or too deep (code 5). */
public final class InvalidNameException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public InvalidNameException(String key, String message) {
        super(ResultCode.INVALID_NAME, key, message);
    }
}
