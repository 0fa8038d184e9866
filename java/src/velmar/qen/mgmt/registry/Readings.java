package velmar.qen.mgmt.registry;

import java.time.Duration;
import java.time.format.DateTimeParseException;
import java.util.List;

/** What a value is as a Java type; null if it is not of that type. */
final class Readings {
    private Readings() {}

    static String text(Value value) {
        return value instanceof Value.Text text ? text.text() : null;
    }

    static List<String> list(Value value) {
        return value instanceof Value.TextList list ? list.texts() : null;
    }

    static Integer int32(Value value) {
        return value instanceof Value.Int32 word ? (Integer) word.number() : null;
    }

    static Long int64(Value value) {
        if (value instanceof Value.Int32 word) {
            return (long) word.number();
        }
        return value instanceof Value.Int64 word ? (Long) word.number() : null;
    }

    /** Bytes that are stored under another type are a damaged value of that type, and not taken for bytes. */
    static byte[] bytes(Value value) {
        boolean plain = value instanceof Value.Bytes bytes && bytes.typeCode() == ValueType.BYTES.code();
        return plain ? ((Value.Bytes) value).bytes() : null;
    }

    static Boolean bool(Value value) {
        String text = text(value);
        return "true".equals(text) ? Boolean.TRUE : "false".equals(text) ? Boolean.FALSE : null;
    }

    static Double float64(Value value) {
        String text = text(value);
        try {
            return text == null ? null : Double.valueOf(text);
        } catch (NumberFormatException e) {
            return null;
        }
    }

    static Duration duration(Value value) {
        String text = text(value);
        try {
            return text == null ? null : Duration.parse(text);
        } catch (DateTimeParseException e) {
            return null;
        }
    }

    static <E extends Enum<E>> E constant(Value value, Class<E> type) {
        String text = text(value);
        for (E constant : type.getEnumConstants()) {
            if (constant.name().equals(text)) {
                return constant;
            }
        }
        return null;
    }

    /** Returns what a value is, in messages. */
    static String phrase(Value value) {
        if (value instanceof Value.Bytes bytes && bytes.typeCode() != ValueType.BYTES.code()) {
            return "bytes of type " + bytes.typeCode();
        }
        return value.type().phrase();
    }

    /** Returns an enum in messages. */
    static String nameOf(Class<?> type) {
        return "a constant of " + type.getSimpleName();
    }
}
