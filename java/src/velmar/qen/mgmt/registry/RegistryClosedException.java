package velmar.qen.mgmt.registry;

/**
 * The registry was closed before the call could start, or its session was ended through {@code TKVNative} (code 3,
 * invalid handle).
 */
public final class RegistryClosedException extends RegistryException {
    private static final long serialVersionUID = 1;

    RegistryClosedException(String text) {
        super(ResultCode.INVALID_HANDLE, null, text);
    }
}
