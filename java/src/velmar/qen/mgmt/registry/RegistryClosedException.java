package velmar.qen.mgmt.registry;

/** The registry, the snapshot or the stream was closed before the call could start (code 3, invalid handle). */
public final class RegistryClosedException extends RegistryException {
    private static final long serialVersionUID = 1;

    /**
     * Creates an exception.
     *
     * @param message what was closed
     */
    public RegistryClosedException(String message) {
        super(ResultCode.INVALID_HANDLE, null, message);
    }
}
