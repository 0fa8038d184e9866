package velmar.qen.mgmt.registry;

import java.util.Arrays;
import java.util.List;
import java.util.Objects;

/**
 * The value of a key. Values are immutable and equal if their types and contents are. In a {@code switch} or a chain of
 * {@code instanceof}, the six kinds are all there are.
 *
 * <p>A value has at most 1 MiB as it is stored: a text takes its bytes in modified UTF-8 and one more; a list those of
 * its texts, one more for each, and one more at the end. What exceeds that is refused when it is written.
 */
public sealed interface Value {
    /**
     * Returns the type of the value.
     *
     * @return the type
     */
    ValueType type();

    /**
     * A text, which may be empty.
     *
     * @param text the text
     */
    record Text(String text) implements Value {
        /**
         * Creates a value.
         *
         * @param text the text
         */
        public Text {
            Objects.requireNonNull(text, "text");
        }

        @Override
        public ValueType type() {
            return ValueType.TEXT;
        }
    }

    /**
     * A list of texts, none of them empty: in the stored form, an empty text is the end of the list.
     *
     * @param texts the texts, unmodifiable
     */
    record TextList(List<String> texts) implements Value {
        /**
         * Creates a value from a copy of a list.
         *
         * @param texts the texts
         * @throws IllegalArgumentException if a text is empty
         */
        public TextList {
            texts = List.copyOf(texts);
            if (texts.contains("")) {
                throw new IllegalArgumentException(
                        "text " + (texts.indexOf("") + 1) + " of the list is empty, which would end the list");
            }
        }

        @Override
        public ValueType type() {
            return ValueType.LIST;
        }
    }

    /**
     * A number of 32 bits.
     *
     * @param number the number
     */
    record Int32(int number) implements Value {
        @Override
        public ValueType type() {
            return ValueType.INT32;
        }
    }

    /**
     * A number of 64 bits.
     *
     * @param number the number
     */
    record Int64(long number) implements Value {
        @Override
        public ValueType type() {
            return ValueType.INT64;
        }
    }

    /**
     * Bytes. This is also how a value is read that another program has stored under a type that its bytes do not fit,
     * such as a number of three bytes, or under a type that is not listed in {@link ValueType}: {@link #typeCode} tells
     * which.
     */
    final class Bytes implements Value {
        private final int typeCode;
        private final byte[] bytes;

        Bytes(int typeCode, byte[] bytes) {
            this.typeCode = typeCode;
            this.bytes = bytes;
        }

        /**
         * Creates a value from a copy of an array.
         *
         * @param bytes the bytes
         */
        public Bytes(byte[] bytes) {
            this(ValueType.BYTES.code(), bytes.clone());
        }

        /**
         * Returns the bytes.
         *
         * @return a new array
         */
        public byte[] bytes() {
            return bytes.clone();
        }

        /**
         * Returns the number of bytes.
         *
         * @return the number
         */
        public int size() {
            return bytes.length;
        }

        /**
         * Returns the type under which the bytes are stored.
         *
         * @return the type's number, which is that of {@link ValueType#BYTES} unless the bytes fit no other type
         */
        public int typeCode() {
            return typeCode;
        }

        /** Returns the bytes themselves, which the caller must not change. */
        byte[] unsafe() {
            return bytes;
        }

        @Override
        public ValueType type() {
            return ValueType.BYTES;
        }

        @Override
        public boolean equals(Object other) {
            return other instanceof Bytes that && typeCode == that.typeCode && Arrays.equals(bytes, that.bytes);
        }

        @Override
        public int hashCode() {
            return 31 * typeCode + Arrays.hashCode(bytes);
        }

        @Override
        public String toString() {
            return "Bytes[" + bytes.length + (typeCode == ValueType.BYTES.code() ? "]" : ", type " + typeCode + "]");
        }
    }

    /** No value: that of a key to which none was ever written. */
    record None() implements Value {
        @Override
        public ValueType type() {
            return ValueType.NONE;
        }
    }
}
