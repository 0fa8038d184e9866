package velmar.qen.mgmt.registry;

/**
 * It is not known whether the change was made (code 20). The reply to a change was lost, and the registry could not be
 * asked before the deadline. Read before repeating the change.
 */
public final class UndecidedException extends RegistryException {
    private static final long serialVersionUID = 1;

    UndecidedException(int code, String key, String text) {
        super(code, key, text);
    }
}
