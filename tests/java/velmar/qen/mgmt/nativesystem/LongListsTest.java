package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.util.Arrays;
import java.util.List;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Test;

/**
 * Lists of many texts. The native method keeps a reference to each text until it returns. The JVM's checks warn about
 * more than a few dozen of them, so these tests run in a JVM without the checks.
 */
class LongListsTest extends OpenSession {
    /** Bytes for the texts, a NUL after each, and one more NUL. */
    private static final int ROOM = 8192;

    private void assertRoundTrip(String[] texts) {
        assertDone(r -> tkv.setKeyValues(top + "k", texts, AS_SESSION, "", null, null, r));
        String[] read = done(r -> tkv.getKeyValues(top + "k", r));
        assertArrayEquals(Arrays.copyOf(texts, texts.length + 1), read);
    }

    private void assertTooLong(String[] texts) {
        Recorder result = new Recorder();
        tkv.setKeyValues(top + "k", texts, AS_SESSION, "", null, null, result);
        assertEquals(List.of("text TKV_VALUE_LIST_TOO_LONG", "status false"), result.reports());
    }

    private static String[] oneLetterTexts(int count) {
        return IntStream.range(0, count).mapToObj(i -> String.valueOf((char) ('a' + i % 26))).toArray(String[]::new);
    }

    @Test
    void aListFillsItsRoomToTheLastByte() {
        assertRoundTrip(oneLetterTexts(4_095));
        assertRoundTrip(new String[] {"x".repeat(ROOM - 2)});
        assertTooLong(new String[] {"x".repeat(ROOM - 1)});
        assertTooLong(new String[] {"x".repeat(ROOM - 3), "y"});
    }

    @Test
    void aListOfFiveThousandTextsIsRefusedWholeAndTheFormerStays() {
        assertRoundTrip(new String[] {"former"});
        assertTooLong(oneLetterTexts(5_000));
        assertArrayEquals(new String[] {"former", null}, done(r -> tkv.getKeyValues(top + "k", r)));
    }

    @Test
    void aListThatIsTooLongCreatesNoKey() {
        assertTooLong(oneLetterTexts(5_000));
        assertFalse(exists(top + "k"));
    }

    @Test
    void fiveThousandTextsReadBackFromFiveLists() {
        String[] texts = IntStream.range(0, 5_000).mapToObj(i -> "t" + i).toArray(String[]::new);
        for (int part = 0; part < 5; part++) {
            String[] some = Arrays.copyOfRange(texts, part * 1_000, (part + 1) * 1_000);
            String name = top + "part" + part;
            assertDone(r -> tkv.setKeyValues(name, some, AS_SESSION, "", null, null, r));
        }
        for (int part = 0; part < 5; part++) {
            String name = top + "part" + part;
            String[] read = done(r -> tkv.getKeyValues(name, r));
            assertArrayEquals(Arrays.copyOfRange(texts, part * 1_000, (part + 1) * 1_000), Arrays.copyOf(read, 1_000));
        }
    }
}
