package velmar.qen.mgmt.registry;

import java.nio.ByteBuffer;
import java.util.Arrays;

/** Decodes what native code has written: numbers with the most significant byte first, texts preceded by a count. */
final class DataReader {
    private final ByteBuffer bytes;

    DataReader(byte[] bytes, int from) {
        this.bytes = ByteBuffer.wrap(bytes);
        this.bytes.position(from);
    }

    boolean atEnd() {
        return !bytes.hasRemaining();
    }

    int word32() {
        return bytes.getInt();
    }

    long word64() {
        return bytes.getLong();
    }

    boolean flag() {
        return word32() != 0;
    }

    /** Reads a name, or another text that the registry has checked. */
    String text() {
        int size = word32();
        int from = bytes.position();
        bytes.position(from + size);
        return ModifiedUtf8.decodeAny(bytes.array(), from, from + size);
    }

    byte[] bytes() {
        int size = word32();
        int from = bytes.position();
        bytes.position(from + size);
        return Arrays.copyOfRange(bytes.array(), from, from + size);
    }

    /** Reads a value whose bytes are preceded by their count. */
    Value value(int type) {
        int size = word32();
        int from = bytes.position();
        bytes.position(from + size);
        return StoredValue.decode(type, bytes.array(), from, from + size);
    }

    /** Reads a value whose bytes are all that is left. */
    Value valueToEnd(int type) {
        return StoredValue.decode(type, bytes.array(), bytes.position(), bytes.limit());
    }

    String textToEnd() {
        return ModifiedUtf8.decodeAny(bytes.array(), bytes.position(), bytes.limit());
    }
}
