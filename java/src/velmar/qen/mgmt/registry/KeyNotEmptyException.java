package velmar.qen.mgmt.registry;

/** The key cannot be deleted by itself because it has subkeys (code 6). */
public final class KeyNotEmptyException extends RegistryException {
    private static final long serialVersionUID = 1;

    KeyNotEmptyException(int code, String key, String text) {
        super(code, key, text);
    }
}
