package velmar.qen.mgmt.registry;

import java.nio.ByteBuffer;

/** Encodes what native code reads: numbers with the most significant byte first, texts preceded by a count. */
final class DataWriter {
    private static final int INITIAL_SIZE = 128;

    private ByteBuffer bytes = ByteBuffer.allocate(INITIAL_SIZE);

    DataWriter word32(int number) {
        room(Integer.BYTES).putInt(number);
        return this;
    }

    DataWriter word64(long number) {
        room(Long.BYTES).putLong(number);
        return this;
    }

    /** Appends what another one has written. */
    DataWriter raw(DataWriter other) {
        ByteBuffer data = other.bytes.duplicate().flip();
        room(data.remaining()).put(data);
        return this;
    }

    DataWriter text(String text) {
        return bytes(ModifiedUtf8.encode(text));
    }

    DataWriter bytes(byte[] data) {
        room(Integer.BYTES + data.length).putInt(data.length).put(data);
        return this;
    }

    byte[] done() {
        byte[] all = new byte[bytes.position()];
        bytes.flip().get(all);
        return all;
    }

    private ByteBuffer room(int size) {
        if (bytes.remaining() < size) {
            ByteBuffer larger = ByteBuffer.allocate(Math.addExact(bytes.position(), Math.max(size, bytes.position())));
            bytes = larger.put(bytes.flip());
        }
        return bytes;
    }
}
