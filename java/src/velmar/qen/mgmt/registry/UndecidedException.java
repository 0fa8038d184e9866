package velmar.qen.mgmt.registry;

/**
 * It is not known whether the change was made (code 20). The reply to a change was lost, and the registry could not be
 * asked before the deadline. Read before repeating the change.
 */
public final class UndecidedException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public UndecidedException(String key, String message) {
        super(ResultCode.UNDECIDED, key, message);
    }
}
