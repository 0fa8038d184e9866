package velmar.qen.mgmt.registry;

/**
 * The registry was closed before the call could start, or its session was ended through {@code TKVNative}. Its code is
 * 3, of a handle that is no longer valid.
 */
public final class RegistryClosedException extends RegistryException {
    private static final long serialVersionUID = 1;

    RegistryClosedException(String text) {
        super(INVALID_HANDLE, null, text);
    }
}
