package velmar.qen.mgmt.registry;

import java.nio.charset.StandardCharsets;

/**
 * Modified UTF-8, the form in which the registry stores texts and names. It differs from UTF-8 in that it writes U+0000
 * as two bytes, and a character above U+FFFF as two surrogates of three bytes each.
 */
final class ModifiedUtf8 {
    private static final int NUL_LEAD = 0xC0;

    private ModifiedUtf8() {}

    static byte[] encode(String text) {
        return isPlain(text) ? text.getBytes(StandardCharsets.UTF_8) : encodeUnits(text);
    }

    /** Returns whether both forms are the same. */
    private static boolean isPlain(String text) {
        for (int i = 0; i < text.length(); i++) {
            char unit = text.charAt(i);
            if (unit == 0 || Character.isSurrogate(unit)) {
                return false;
            }
        }
        return true;
    }

    private static byte[] encodeUnits(String text) {
        byte[] bytes = new byte[size(text)];
        int at = 0;
        for (int i = 0; i < text.length(); i++) {
            char unit = text.charAt(i);
            if (unit != 0 && unit < 0x80) {
                bytes[at++] = (byte) unit;
            } else if (unit < 0x800) {
                bytes[at++] = (byte) (0xC0 | unit >> 6);
                bytes[at++] = (byte) (0x80 | unit & 0x3F);
            } else {
                bytes[at++] = (byte) (0xE0 | unit >> 12);
                bytes[at++] = (byte) (0x80 | unit >> 6 & 0x3F);
                bytes[at++] = (byte) (0x80 | unit & 0x3F);
            }
        }
        return bytes;
    }

    private static int size(String text) {
        int size = 0;
        for (int i = 0; i < text.length(); i++) {
            char unit = text.charAt(i);
            size += unit != 0 && unit < 0x80 ? 1 : unit < 0x800 ? 2 : 3;
        }
        return size;
    }

    /** Decodes either form. Returns null if the bytes are ill-formed. */
    static String decode(byte[] bytes, int from, int to) {
        for (int i = from; i < to; i++) {
            if (bytes[i] < 0) {
                return decodeBytes(bytes, from, to);
            }
        }
        return new String(bytes, from, to - from, StandardCharsets.US_ASCII);
    }

    /** Decodes either form, with replacement characters where the bytes are ill-formed. */
    static String decodeAny(byte[] bytes, int from, int to) {
        String text = decode(bytes, from, to);
        return text != null ? text : new String(bytes, from, to - from, StandardCharsets.UTF_8);
    }

    private static String decodeBytes(byte[] bytes, int from, int to) {
        StringBuilder text = new StringBuilder(to - from);
        for (int at = from; at < to;) {
            int lead = bytes[at] & 0xFF;
            int size = lead < 0x80 ? 1 : lead < NUL_LEAD ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4 : 0;
            if (size == 0 || size > to - at) {
                return null;
            }
            int character = size == 1 ? lead : lead & 0x7F >> size;
            for (int i = 1; i < size; i++) {
                if ((bytes[at + i] & 0xC0) != 0x80) {
                    return null;
                }
                character = character << 6 | bytes[at + i] & 0x3F;
            }
            if (!isShortest(character, size)) {
                return null;
            }
            text.appendCodePoint(character);
            at += size;
        }
        return text.toString();
    }

    private static boolean isShortest(int character, int size) {
        return switch (size) {
            case 1 -> true;
            case 2 -> character == 0 || character >= 0x80;
            case 3 -> character >= 0x800;
            default -> character >= 0x10000 && character <= 0x10FFFF;
        };
    }
}
