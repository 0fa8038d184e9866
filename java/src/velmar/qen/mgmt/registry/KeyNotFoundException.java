package velmar.qen.mgmt.registry;

/** There is no such key, or no parent to create it below (code 4). */
public final class KeyNotFoundException extends RegistryException {
    private static final long serialVersionUID = 1;

    KeyNotFoundException(int code, String key, String text) {
        super(code, key, text);
    }
}
