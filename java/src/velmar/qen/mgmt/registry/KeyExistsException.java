package velmar.qen.mgmt.registry;

/** There already is such a key (code 55). */
public final class KeyExistsException extends RegistryException {
    private static final long serialVersionUID = 1;

    KeyExistsException(int code, String key, String text) {
        super(code, key, text);
    }
}
