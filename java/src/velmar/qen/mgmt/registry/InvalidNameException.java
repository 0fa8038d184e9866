package velmar.qen.mgmt.registry;

/** The name has an empty level or a NUL, or is too long or too deep (code 5). */
public final class InvalidNameException extends RegistryException {
    private static final long serialVersionUID = 1;

    InvalidNameException(int code, String key, String text) {
        super(code, key, text);
    }
}
