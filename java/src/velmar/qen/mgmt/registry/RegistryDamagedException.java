package velmar.qen.mgmt.registry;

/**
 * The stored data is damaged, or the disk is failing (code 7). A backup may have to be restored. Every other problem
 * with the storage has an exception of its own.
 */
public final class RegistryDamagedException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param key full name of the key that the call was about; null if it was about none
     * @param message what happened
     */
    public RegistryDamagedException(String key, String message) {
        super(ResultCode.STORAGE_FAILED, key, message);
    }
}
