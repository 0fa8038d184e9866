package velmar.qen.mgmt.registry;

/** What a method of {@link RegistryNatives} returns: nothing, a result code and a result, or a code and a message. */
final class Reply {
    private static final int CODE_SIZE = 4;

    private Reply() {}

    /** Returns the result code, 0 for success. */
    static int code(byte[] reply) {
        return reply == null ? ResultCode.DONE
                             : reply[0] << 24 | (reply[1] & 0xFF) << 16 | (reply[2] & 0xFF) << 8 | reply[3] & 0xFF;
    }

    /** Returns a reader of the result of a call that has succeeded. */
    static DataReader result(byte[] reply) {
        return new DataReader(reply == null ? new byte[CODE_SIZE] : reply, CODE_SIZE);
    }

    /** Returns the message of a call that has failed. */
    static String message(byte[] reply) {
        String message = result(reply).textToEnd();
        return message.isEmpty() && code(reply) == ResultCode.OUT_OF_MEMORY ? "out of memory" : message;
    }

    /** Returns the exception for a call that has failed. */
    static RegistryException failure(byte[] reply, String key) {
        return RegistryException.of(code(reply), key, message(reply));
    }

    /** Throws if the call has failed, and otherwise returns a reader of its result. */
    static DataReader checked(byte[] reply, String key) {
        if (code(reply) != ResultCode.DONE) {
            throw failure(reply, key);
        }
        return result(reply);
    }
}
