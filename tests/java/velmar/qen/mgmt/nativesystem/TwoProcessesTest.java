package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.io.IOException;
import java.util.List;
import java.util.Map;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Test;

class TwoProcessesTest extends OpenSession {
    private static final int KEYS = 200;

    /** Writes keys below a key, then the key's value, and exits without closing the session if asked to. */
    static final class Writer {
        private Writer() {}

        public static void main(String[] arguments) {
            TKVNative tkv = new TKVNative();
            assertDone(r -> tkv.initializeTKVLevel(0, r));
            assertDone(r -> tkv.openKey("", r));
            for (int i = 0; i < KEYS; i++) {
                String name = arguments[0] + "." + arguments[1] + i;
                assertDone(r -> tkv.setKeyValue(name, "value of " + name, 3, "", null, null, r));
            }
            String[] list = {"größer", "\ud83d\ude00"};
            assertDone(r -> tkv.setKeyValues(arguments[0] + "." + arguments[1], list, 3, "", null, null, r));
            Runtime.getRuntime().halt(7);
        }
    }

    private void assertWritten(String parent, String prefix) {
        for (int i = 0; i < KEYS; i++) {
            String name = parent + "." + prefix + i;
            assertEquals("value of " + name, get(name));
        }
        assertArrayEquals(new String[] {"größer", "\ud83d\ude00", null},
                          done(r -> tkv.getKeyValues(parent + "." + prefix, r)));
    }

    @Test
    void aJvmReadsWhatAnotherWroteThatEndedWithoutClosing() throws IOException, InterruptedException {
        String parent = parent();
        ChildJvm.Outcome writer = ChildJvm.run(List.of(), Map.of(), Writer.class, parent, "w");
        assertEquals(7, writer.exit(), writer.output());
        assertWritten(parent, "w");
    }

    @Test
    void twoJvmsThatWriteAtOnceLoseNothing() throws IOException, InterruptedException {
        String parent = parent();
        List<Process> writers = List.of(ChildJvm.start(List.of(), Map.of(), Writer.class, parent, "a"),
                                        ChildJvm.start(List.of(), Map.of(), Writer.class, parent, "b"));
        for (int i = 0; i < KEYS; i++) {
            put(parent + ".here" + i, "value");
        }
        for (Process writer : writers) {
            String output = new String(writer.getInputStream().readAllBytes());
            assertEquals(7, writer.waitFor(), output);
            ChildJvm.assertNoComplaint(output);
        }
        assertWritten(parent, "a");
        assertWritten(parent, "b");
        assertTrue(IntStream.range(0, KEYS).allMatch(i -> "value".equals(get(parent + ".here" + i))));
        assertEquals(3 * KEYS + 2, done(r -> tkv.listSubKeys(parent, r)).length);
    }
}
