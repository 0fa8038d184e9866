package velmar.qen.mgmt.registry;

/** The registry's result codes, named as in {@code platform/if/prtkv_results.h}, the table that defines them. */
final class ResultCode {
    static final int DONE = 0;
    static final int ACCESS_DENIED = 2;
    static final int INVALID_HANDLE = 3;
    static final int NO_SUCH_KEY = 4;
    static final int INVALID_NAME = 5;
    static final int HAS_SUBKEYS = 6;
    static final int STORAGE_FAILED = 7;
    static final int INVALID_ARGUMENT = 8;
    static final int BUFFER_TOO_SMALL = 9;
    static final int VALUE_TOO_LARGE = 10;
    static final int STORAGE_FULL = 11;
    static final int OUT_OF_MEMORY = 12;
    static final int NULL_ARGUMENT = 13;
    static final int UNKNOWN = 14;
    static final int UNREACHABLE = 15;
    static final int NO_MORE_SUBKEYS = 16;
    static final int MOVE_INTO_ITSELF = 17;
    static final int UNUSABLE = 18;
    static final int BUSY = 19;
    static final int UNDECIDED = 20;
    static final int CONFLICT = 21;
    static final int DISTRIBUTED = 37;
    static final int INVALID_CONFIGURATION = 41;
    static final int CONFIGURATION_UNREADABLE = 42;
    static final int KEY_EXISTS = 55;

    private ResultCode() {}
}
