package velmar.qen.mgmt.registry;

/** The storage failed, or holds something damaged, code 7. */
public final class RegistryDamagedException extends RegistryException {
    private static final long serialVersionUID = 1;

    RegistryDamagedException(int code, String key, String text) {
        super(code, key, text);
    }
}
