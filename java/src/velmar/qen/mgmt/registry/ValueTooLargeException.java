package velmar.qen.mgmt.registry;

/** The value is larger than the operation allows (codes 9 and 10). */
public final class ValueTooLargeException extends RegistryException {
    private static final long serialVersionUID = 1;

    ValueTooLargeException(int code, String key, String text) {
        super(code, key, text);
    }
}
