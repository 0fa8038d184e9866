package velmar.qen.mgmt.registry;

/** The session's user lacks a right on the key (code 2). */
public final class AccessDeniedException extends RegistryException {
    private static final long serialVersionUID = 1;

    AccessDeniedException(int code, String key, String text) {
        super(code, key, text);
    }
}
