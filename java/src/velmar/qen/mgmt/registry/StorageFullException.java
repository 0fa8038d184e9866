package velmar.qen.mgmt.registry;

/** The storage is full; the registry is unharmed (code 11). */
public final class StorageFullException extends RegistryException {
    private static final long serialVersionUID = 1;

    StorageFullException(int code, String key, String text) {
        super(code, key, text);
    }
}
