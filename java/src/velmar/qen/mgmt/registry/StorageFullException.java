package velmar.qen.mgmt.registry;

/** The storage is full; the registry is unharmed (code 11). */
public final class StorageFullException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public StorageFullException(String key, String message) {
        super(ResultCode.STORAGE_FULL, key, message);
    }
}
