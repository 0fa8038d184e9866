package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static velmar.qen.mgmt.nativesystem.Reports.assertCode;
import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.assertRefused;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

class ValuesTest extends OpenSession {
    private static final int MEBIBYTE = 1024 * 1024;

    @ParameterizedTest
    @ValueSource(strings = {"x", "xy", "a text", "größer", "日本語", "a\u0000b", "\ud83d\ude00 supplementary",
                            "100 %s {0}"})
    void aTextReadsBackAsItWasWritten(String text) {
        put(top + "k", text);
        assertEquals(text, get(top + "k"));
    }

    @ParameterizedTest
    @ValueSource(ints = {1022, 1023, 1024, 1025, 8191, 8192, 100_000, MEBIBYTE - 1})
    void aTextOfAnyLengthReadsBackAsItWasWritten(int length) {
        put(top + "k", "x".repeat(length));
        assertEquals("x".repeat(length), get(top + "k"));
    }

    @Test
    void aValueOverOneMebibyteIsRefusedAndTheFormerStays() {
        put(top + "k", "former");
        String text = "x".repeat(MEBIBYTE);
        assertRefused(10, "", r -> tkv.setKeyValue(top + "k", text, AS_SESSION, "", null, null, r));
        assertEquals("former", get(top + "k"));
        assertRefused(10, "", r -> tkv.setKeyValue(top + "new", text, AS_SESSION, "", null, null, r));
        assertFalse(exists(top + "new"));
    }

    @Test
    void anEmptyTextReadsAsNullLikeAnAbsentKey() {
        put(top + "k", "");
        assertNull(get(top + "k"));
        assertNull(get(top + "absent"));
    }

    @Test
    void writingAnExistingKeyReplacesItsValueAlone() {
        assertDone(r -> tkv.setKeyValue(top + "k", "1", OWNED_BY, null, "nobody", "nogroup", r));
        assertDone(r -> tkv.setKeyValue(top + "k", "2", 77, null, "daemon", "daemon", r));
        assertEquals("2", get(top + "k"));
        assertEquals("nobody", done(r -> tkv.getUserName(top + "k", r)));
        assertEquals("nogroup", done(r -> tkv.getGroupName(top + "k", r)));
    }

    @ParameterizedTest
    @CsvSource({"1, abcdefghij, abcd", "1, ab, ab", "1, 1234, 1234", "2, abcdefghij, abcdefgh", "2, ab, ab",
                "3, abcdefghij, abcdefghij", "5, abcdefghij, ", "7, abcdefghij, ", "0, a, ", "-1, a, "})
    void theDataTypeDecidesHowMuchOfTheTextIsStored(int type, String text, String stored) {
        assertDone(r -> tkv.setTypeKeyValue(top + "set", text, type, AS_SESSION, "", null, null, r));
        assertEquals(stored, get(top + "set"));
        assertDone(r -> tkv.createAndSetKeyValue(top + "created", text, type, AS_SESSION, "", null, null, r));
        assertEquals(stored, get(top + "created"));
    }

    @Test
    void aNewKeyNeedsItsParent() {
        assertRefused(4, "", r -> tkv.setKeyValue(top + "absent.child", "v", AS_SESSION, "", null, null, r));
    }

    @Test
    void createAndSetKeyValueLeavesAnExistingKeyAlone() {
        put(top + "k", "former");
        Recorder result = new Recorder();
        tkv.createAndSetKeyValue(top + "k", "new", 3, AS_SESSION, "", null, null, result);
        assertEquals(List.of("text TKV_KEY_ALREADY_EXISTS", "status false"), result.reports());
        assertEquals("former", get(top + "k"));
    }

    @Test
    void aNullValueIsRefusedByTheRegistry() {
        assertRefused(13, "", r -> tkv.setKeyValue(top + "k", null, AS_SESSION, "", null, null, r));
        assertRefused(13, "", r -> tkv.createAndSetKeyValue(top + "k", null, 1, AS_SESSION, "", null, null, r));
        assertFalse(exists(top + "k"));
    }

    @Test
    void aListGivesItsTextsAndANull() {
        assertDone(r -> tkv.setKeyValues(top + "k", new String[] {"a", "bc"}, AS_SESSION, "", null, null, r));
        assertArrayEquals(new String[] {"a", "bc", null}, done(r -> tkv.getKeyValues(top + "k", r)));
        assertEquals("a", get(top + "k"));
        assertDone(r -> tkv.setKeyValues(top + "k", new String[] {"one"}, AS_SESSION, "", null, null, r));
        assertArrayEquals(new String[] {"one", null}, done(r -> tkv.getKeyValues(top + "k", r)));
    }

    @Test
    void anEmptyListReadsAsNullAndCreatesTheKey() {
        assertDone(r -> tkv.setKeyValues(top + "k", new String[0], AS_SESSION, "", null, null, r));
        assertNull(done(r -> tkv.getKeyValues(top + "k", r)));
        assertEquals(true, exists(top + "k"));
        assertNull(done(r -> tkv.getKeyValues(top + "absent", r)));
    }

    @Test
    void anEmptyTextEndsTheList() {
        assertDone(r -> tkv.setKeyValues(top + "k", new String[] {"a", "", "b"}, AS_SESSION, "", null, null, r));
        assertArrayEquals(new String[] {"a", null}, done(r -> tkv.getKeyValues(top + "k", r)));
    }

    @Test
    void aListThatStartsWithAnEmptyTextCannotBeRead() {
        assertDone(r -> tkv.setKeyValues(top + "k", new String[] {"", "b"}, AS_SESSION, "", null, null, r));
        assertNull(done(r -> tkv.getKeyValues(top + "k", r)));
    }

    @Test
    void aTextReadsAsAListOfOne() {
        put(top + "k", "text");
        assertArrayEquals(new String[] {"text"}, done(r -> tkv.getKeyValues(top + "k", r)));
        put(top + "k", "");
        assertArrayEquals(new String[] {null}, done(r -> tkv.getKeyValues(top + "k", r)));
    }

    @Test
    void listsHoldAnyCharacter() {
        String[] texts = {"größer", "日本語", "\ud83d\ude00", "a\u0000b", "100 %s"};
        assertDone(r -> tkv.setKeyValues(top + "k", texts, AS_SESSION, "", null, null, r));
        assertArrayEquals(new String[] {"größer", "日本語", "\ud83d\ude00", "a\u0000b", "100 %s", null},
                          done(r -> tkv.getKeyValues(top + "k", r)));
    }

    @ParameterizedTest
    @ValueSource(strings = {"null list", "null element"})
    void anUnusableListIsRefusedBeforeAnythingIsWritten(String which) {
        String[] values = which.equals("null list") ? null : new String[] {"a", null};
        put(top + "k", "former");
        for (String name : List.of(top + "k", top + "new")) {
            Recorder result = new Recorder();
            tkv.setKeyValues(name, values, AS_SESSION, "", null, null, result);
            assertEquals(List.of("text TKV_VALUE_LIST_INVALID", "status false"), result.reports());
        }
        assertEquals("former", get(top + "k"));
        assertFalse(exists(top + "new"));
    }

    @Test
    void nullNamesAreReportedByCode() {
        assertCode(1, r -> tkv.setKeyValue(null, "v", AS_SESSION, "", null, null, r));
        assertCode(1, r -> tkv.setKeyValues(null, new String[] {"v"}, AS_SESSION, "", null, null, r));
        assertCode(1, r -> tkv.createAndSetKeyValue(null, "v", 3, AS_SESSION, "", null, null, r));
    }
}
