package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.channels.FileLock;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import velmar.qen.mgmt.nativesystem.ChildJvm;

/** Another process that holds the writer lock of a registry in a directory, until this object is closed. */
final class ForeignWriter implements AutoCloseable {
    private final Process process;

    ForeignWriter(Path directory) throws IOException {
        process = ChildJvm.start(List.of(), Map.of(), Holder.class, directory.resolve("writer.lock").toString());
        assertEquals('h', process.getInputStream().read(), "the lock is held");
    }

    long pid() {
        return process.pid();
    }

    /** Holds the lock until its standard input ends. */
    static final class Holder {
        // As writer_lock.cpp has them. Do not change one side alone.
        private static final long WRITER = 1;
        private static final int HOLDER_SIZE = 96;

        private Holder() {}

        public static void main(String[] arguments) throws IOException {
            try (FileChannel file = FileChannel.open(Path.of(arguments[0]), StandardOpenOption.WRITE);
                 FileLock lock = file.lock(WRITER, 1, false)) {
                file.write(ByteBuffer.wrap(Arrays.copyOf(name().getBytes(StandardCharsets.US_ASCII), HOLDER_SIZE)), 0);
                System.out.println(lock.isValid() ? "held" : "not held");
                System.in.read();
            }
        }

        /** What a writer writes about itself: its process, its PID namespace and its command. */
        private static String name() throws IOException {
            String namespace = Files.readSymbolicLink(Path.of("/proc/self/ns/pid")).toString();
            return ProcessHandle.current().pid() + " " + namespace.replaceAll("\\D", "") + " holder";
        }
    }

    @Override
    public void close() throws InterruptedException {
        process.destroyForcibly();
        process.waitFor();
    }
}
