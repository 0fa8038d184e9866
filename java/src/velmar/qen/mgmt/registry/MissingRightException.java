package velmar.qen.mgmt.registry;

/** The session's user lacks a right on the key (code 2). */
public final class MissingRightException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public MissingRightException(String key, String message) {
        super(ResultCode.ACCESS_DENIED, key, message);
    }
}
