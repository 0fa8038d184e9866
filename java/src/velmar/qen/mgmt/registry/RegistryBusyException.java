package velmar.qen.mgmt.registry;

/**
 * Another process is using the registry (code 19). The call has changed nothing and may succeed later.
 */
public final class RegistryBusyException extends RegistryException {
    private static final long serialVersionUID = 1;

    RegistryBusyException(int code, String key, String text) {
        super(code, key, text);
    }
}
