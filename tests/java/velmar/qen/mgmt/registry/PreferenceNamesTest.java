package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Random;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

class PreferenceNamesTest {
    private static final int LONGEST_LEVEL = 264;
    /** What the encoding treats differently, and what modified UTF-8 encodes in different ways. */
    private static final String CHARACTERS = "aA2E@~./\0%\u007f\u0080é߿\u0800€\ud800\udbff\udc00\udfff\uffff";

    private static String random(Random random, int length) {
        StringBuilder text = new StringBuilder();
        while (text.length() < length) {
            text.append(random.nextInt(4) > 0 ? CHARACTERS.charAt(random.nextInt(CHARACTERS.length()))
                                              : (char) random.nextInt(0x10000));
        }
        return text.toString();
    }

    private static void assertIsALevel(String level) {
        byte[] bytes = ModifiedUtf8.encode(level);
        assertTrue(bytes.length >= 1 && bytes.length <= LONGEST_LEVEL, level);
        assertFalse(level.contains(".") || level.contains("\0"), level);
        assertEquals(level, ModifiedUtf8.decode(bytes, 0, bytes.length));
    }

    @Test
    void plainNamesAreReadable() {
        assertEquals("Example app_1-größer%", PreferenceNames.ofNode("Example app_1-größer%"));
        assertEquals("@window/Width", PreferenceNames.ofPreference("window/Width"));
        assertEquals("@", PreferenceNames.ofPreference(""));
    }

    @ParameterizedTest
    @CsvSource({"a.b,a~2Eb", "~,~7E", "~2E,~7E2E", "@a,~40a", "a@,a@", "@@,~40@"})
    void whatWouldBeAmbiguousIsEscaped(String name, String level) {
        assertEquals(level, PreferenceNames.ofNode(name));
        assertEquals(Optional.of(name), PreferenceNames.decode(level));
    }

    @ParameterizedTest
    @ValueSource(strings = {"~", "~2", "~2e", "~41", "~zz", "a~40", "@~40", "a/b", "@~00"})
    void levelsThatStandForNothingAreRecognized(String level) {
        assertEquals(Optional.empty(), PreferenceNames.decode(level));
    }

    @Test
    void namesOverEightyCharactersStandForNothing() {
        assertEquals(Optional.empty(), PreferenceNames.decode("a".repeat(81)));
        assertEquals(Optional.empty(), PreferenceNames.decode("@" + "a".repeat(81)));
    }

    @Test
    void theLongestNamesFit() {
        for (char c : CHARACTERS.toCharArray()) {
            assertIsALevel(PreferenceNames.ofNode(String.valueOf(c).repeat(80)));
            assertIsALevel(PreferenceNames.ofPreference(String.valueOf(c).repeat(80)));
        }
    }

    @Test
    void everyNameHasALevelOfItsOwnAndIsRestored() {
        Random random = new Random(1);
        Map<String, String> seen = new HashMap<>();
        for (int i = 0; i < 200_000; i++) {
            String name = random(random, random.nextInt(i % 2 == 0 ? 4 : 81));
            String ofPreference = PreferenceNames.ofPreference(name);
            for (String level : name.isEmpty() ? List.of(ofPreference)
                                               : List.of(ofPreference, PreferenceNames.ofNode(name))) {
                boolean preference = PreferenceNames.isPreference(level);
                assertEquals(level.equals(ofPreference), preference);
                String former = seen.put(level, name);
                assertTrue(former == null || former.equals(name), level);
                assertIsALevel(level);
                boolean valid = name.indexOf(preference ? '\0' : '/') < 0;
                assertEquals(valid ? name : null, PreferenceNames.decode(level).orElse(null));
            }
        }
        assertNull(seen.get(""));
    }

    @Test
    void whatIsDecodedIsEncodedAsItWas() {
        Random random = new Random(2);
        for (int i = 0; i < 200_000; i++) {
            String level = random(random, 1 + random.nextInt(8));
            PreferenceNames.decode(level).ifPresent(name -> assertEquals(
                    level, PreferenceNames.isPreference(level) ? PreferenceNames.ofPreference(name)
                                                               : PreferenceNames.ofNode(name)));
        }
    }
}
