package velmar.qen.mgmt.registry;

import java.io.ByteArrayOutputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * The bytes that the registry stores for a value: a text and one NUL; each text of a list and a NUL, then one more NUL;
 * numbers with the least significant byte first.
 */
final class StoredValue {
    private static final byte[] NOTHING = {};
    private static final Value NONE = new Value.None();
    private static final Value EMPTY_LIST = new Value.TextList(List.of());

    private StoredValue() {}

    /** Returns the type that goes with {@link #encode}. */
    static int typeCode(Value value) {
        return value instanceof Value.Bytes bytes ? bytes.typeCode() : value.type().code();
    }

    static byte[] encode(Value value) {
        if (value instanceof Value.Text text) {
            byte[] bytes = ModifiedUtf8.encode(text.text());
            return Arrays.copyOf(bytes, bytes.length + 1);
        } else if (value instanceof Value.TextList list) {
            return encode(list.texts());
        } else if (value instanceof Value.Int32 word) {
            return littleEndian(Integer.BYTES).putInt(word.number()).array();
        } else if (value instanceof Value.Int64 word) {
            return littleEndian(Long.BYTES).putLong(word.number()).array();
        } else if (value instanceof Value.Bytes bytes) {
            return bytes.unsafe();
        }
        return NOTHING;
    }

    private static byte[] encode(List<String> texts) {
        if (texts.isEmpty()) {
            return NOTHING;
        }
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        for (String text : texts) {
            bytes.writeBytes(ModifiedUtf8.encode(text));
            bytes.write(0);
        }
        bytes.write(0);
        return bytes.toByteArray();
    }

    private static ByteBuffer littleEndian(int size) {
        return ByteBuffer.allocate(size).order(ByteOrder.LITTLE_ENDIAN);
    }

    /** Decodes a value. What does not fit its type is bytes of that type. */
    static Value decode(int type, byte[] bytes, int from, int to) {
        Value value = switch (type) {
            case 0 -> from == to ? NONE : null;
            case 1 -> to - from == Integer.BYTES ? new Value.Int32(word(bytes, from, to).getInt()) : null;
            case 2 -> to - from == Long.BYTES ? new Value.Int64(word(bytes, from, to).getLong()) : null;
            case 3 -> decodeText(bytes, from, to);
            case 5 -> decodeList(bytes, from, to);
            default -> null;
        };
        return value != null ? value : new Value.Bytes(type, Arrays.copyOfRange(bytes, from, to));
    }

    private static ByteBuffer word(byte[] bytes, int from, int to) {
        return ByteBuffer.wrap(bytes, from, to - from).order(ByteOrder.LITTLE_ENDIAN);
    }

    /** Programs in C may leave out the NUL. */
    private static Value decodeText(byte[] bytes, int from, int to) {
        int end = end(bytes, from, to);
        if (end < to - 1) {
            return null;
        }
        String text = ModifiedUtf8.decode(bytes, from, end);
        return text == null ? null : new Value.Text(text);
    }

    private static Value decodeList(byte[] bytes, int from, int to) {
        if (from == to) {
            return EMPTY_LIST;
        }
        List<String> texts = new ArrayList<>();
        int at = from;
        while (at < to && bytes[at] != 0) {
            int end = end(bytes, at, to);
            String text = ModifiedUtf8.decode(bytes, at, end);
            if (end == to || text == null) {
                return null;
            }
            texts.add(text);
            at = end + 1;
        }
        // The empty text at the end; nothing may follow it.
        return at == to - 1 && !texts.isEmpty() ? new Value.TextList(texts) : null;
    }

    /** Returns the position of the first NUL, or the end. */
    private static int end(byte[] bytes, int from, int to) {
        int at = from;
        while (at < to && bytes[at] != 0) {
            at++;
        }
        return at;
    }
}
