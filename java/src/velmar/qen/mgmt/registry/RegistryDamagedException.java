package velmar.qen.mgmt.registry;

/**
 * The stored data is damaged, or the disk is failing (code 7). A backup may have to be restored. Every other
 * problem with the storage has an exception of its own.
 */
public final class RegistryDamagedException extends RegistryException {
    private static final long serialVersionUID = 1;

    RegistryDamagedException(int code, String key, String text) {
        super(code, key, text);
    }
}
