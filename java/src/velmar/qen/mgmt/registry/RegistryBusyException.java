package velmar.qen.mgmt.registry;

/** Another process is using the registry (code 19). The call has changed nothing and may succeed later. */
public final class RegistryBusyException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public RegistryBusyException(String key, String message) {
        super(ResultCode.BUSY, key, message);
    }
}
