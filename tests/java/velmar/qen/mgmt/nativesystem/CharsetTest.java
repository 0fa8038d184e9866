package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.io.IOException;
import java.nio.charset.Charset;
import java.nio.charset.StandardCharsets;
import java.util.HexFormat;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** The effects of the session's character set. Runs once for each set, which {@code tkv.charset} names. */
class CharsetTest extends OpenSession {
    private static final String SUPPLEMENTARY = "\ud83d\ude00";

    private final Charset charset = Charset.forName(System.getProperty("tkv.charset"));

    @ParameterizedTest
    @ValueSource(strings = {"größer", "日本語", SUPPLEMENTARY})
    void namesAndSingleValuesDoNotDependOnIt(String text) {
        put(top + text, text);
        assertEquals(text, get(top + text));
        assertArrayEquals(new String[] {text}, done(r -> tkv.listSubKeys(parent(), r)));
    }

    // Stored as modified UTF-8, but read in the session's character set.
    @ParameterizedTest
    @ValueSource(strings = {"plain", "é", "ö", "größer"})
    void textsOfAListAreConvertedFromIt(String text) {
        String expected = new String(text.getBytes(StandardCharsets.UTF_8), charset);
        assertDone(r -> tkv.setKeyValues(top + "k", new String[] {text, "z"}, AS_SESSION, "", null, null, r));
        String[] read = done(r -> tkv.getKeyValues(top + "k", r));
        if (expected.contains("\ufffd")) {
            assertNull(read, "a text with bytes that the character set does not have makes the list unreadable");
        } else {
            assertArrayEquals(new String[] {expected, "z", null}, read);
        }
    }

    @Test
    void aListInItIsReadAsItWasMeant() throws IOException, InterruptedException {
        String text = charset.equals(StandardCharsets.ISO_8859_1) ? "größer" : "日本語";
        String bytes = HexFormat.of().formatHex((text + "\0z\0\0").getBytes(charset));
        Command.run("set", top + "k", "--hex", bytes, "--type", "5");
        assertArrayEquals(new String[] {text, "z", null}, done(r -> tkv.getKeyValues(top + "k", r)));
    }

    @Test
    void supplementaryCharactersInListsNeedUtf8() {
        assertDone(r -> tkv.setKeyValues(top + "k", new String[] {SUPPLEMENTARY}, AS_SESSION, "", null, null, r));
        String[] read = done(r -> tkv.getKeyValues(top + "k", r));
        if (charset.equals(StandardCharsets.UTF_8)) {
            assertArrayEquals(new String[] {SUPPLEMENTARY, null}, read);
        } else if (charset.equals(StandardCharsets.ISO_8859_1)) {
            assertEquals(6, read[0].length(), "three bytes for each half of the pair");
        } else {
            assertNull(read);
        }
    }

    @Test
    void aUsersNameMustExistInIt() {
        String name = charset.equals(StandardCharsets.ISO_8859_1) ? "日本" : "\ud800";
        Recorder result = new Recorder();
        tkv.setKeyValue(top + "k", "v", OWNED_BY, null, name, null, result);
        assertFalse(exists(top + "k"));
        assertEquals("status true", result.reports().get(result.reports().size() - 1));
        assertTrue(result.reports().contains("status false"), () -> result.reports().toString());
        Recorder creation = new Recorder();
        tkv.createKey(top + "k", OWNED_BY, null, name, null, creation);
        assertFalse(creation.getStatus());
        assertFalse(exists(top + "k"));
    }

    // Stored in the session's character set, but read as UTF-8.
    @Test
    void namesOfUsersReadBackAsTheyAreInUtf8() {
        String name = charset.equals(Charset.forName("EUC-JP")) ? "日本" : "jürgen";
        String read = new String(name.getBytes(charset), StandardCharsets.UTF_8);
        assertDone(r -> tkv.createKey(top + "k", OWNED_BY, null, name, name, r));
        assertEquals(read, done(r -> tkv.getUserName(top + "k", r)));
        assertEquals(read, done(r -> tkv.getGroupName(top + "k", r)));
        assertDone(r -> tkv.createKey(top + "ascii", OWNED_BY, null, "juergen", "groesse", r));
        assertEquals("juergen", done(r -> tkv.getUserName(top + "ascii", r)));
        assertEquals("groesse", done(r -> tkv.getGroupName(top + "ascii", r)));
    }
}
