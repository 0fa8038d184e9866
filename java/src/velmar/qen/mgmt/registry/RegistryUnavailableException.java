package velmar.qen.mgmt.registry;

/**
 * The registry cannot be reached (code 15). The next call tries again.
 */
public final class RegistryUnavailableException extends RegistryException {
    private static final long serialVersionUID = 1;

    RegistryUnavailableException(int code, String key, String text) {
        super(code, key, text);
    }
}
