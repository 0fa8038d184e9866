package velmar.qen.mgmt.registry;

/** The types of values. */
public enum ValueType {
    /** The key has no value. */
    NONE(0, "no value"),
    /** A number of 32 bits. */
    INT32(1, "an int32"),
    /** A number of 64 bits. */
    INT64(2, "an int64"),
    /** A text. */
    TEXT(3, "a text"),
    /** Any bytes. */
    BYTES(4, "bytes"),
    /** A list of texts. */
    LIST(5, "a list");

    private final int code;
    private final String phrase;

    ValueType(int code, String phrase) {
        this.code = code;
        this.phrase = phrase;
    }

    /** Returns the type for a code. The bytes of a type that has no reading here are just that. */
    static ValueType of(int code) {
        return code >= 0 && code < values().length ? values()[code] : BYTES;
    }

    /**
     * Returns the number by which the registry knows the type.
     *
     * @return the number
     */
    public int code() {
        return code;
    }

    /** Returns the type in messages, such as "a text". */
    String phrase() {
        return phrase;
    }
}
