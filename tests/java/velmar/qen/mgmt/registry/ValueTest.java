package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.math.RoundingMode;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Base64;
import java.util.Collections;
import java.util.EnumSet;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.OptionalDouble;
import java.util.OptionalInt;
import java.util.OptionalLong;
import java.util.Random;
import java.util.function.Function;
import java.util.stream.IntStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;
import velmar.qen.mgmt.nativesystem.Command;

class ValueTest extends OpenRegistry {
    private static final int MEBIBYTE = 1 << 20;

    private String key() {
        return below("k");
    }

    @ParameterizedTest
    @ValueSource(strings = {"", "x", "a text", "größer 日本語 \ud83d\ude00", "a\u0000b", "\ud83d", "100 %s {0}"})
    void aTextReadsBack(String text) {
        registry.put(key(), text);
        assertEquals(text, registry.getText(key()));
        assertEquals(Optional.of(text), registry.findText(key()));
        assertEquals(text, registry.getText(key(), "default"));
        assertEquals(new Value.Text(text), registry.value(key()));
        assertEquals(ValueType.TEXT, registry.stat(key()).type());
    }

    static Stream<List<String>> lists() {
        return Stream.of(List.of(), List.of("one"), List.of("a", "bc"), List.of("größer", "日本語"),
                         List.of("\ud83d\ude00"), List.of("a\u0000b", " "), List.of("\ud83d", "\ude00", "\ude00\ud83d"),
                         IntStream.range(0, 3_000).mapToObj(i -> "text" + i).toList());
    }

    @ParameterizedTest
    @MethodSource("lists")
    void aListReadsBack(List<String> texts) {
        registry.put(key(), texts);
        assertEquals(texts, registry.getList(key()));
        assertEquals(Optional.of(texts), registry.findList(key()));
        assertEquals(texts, registry.getList(key(), List.of("default")));
        assertEquals(ValueType.LIST, registry.stat(key()).type());
    }

    @Test
    void aListCannotHoldAnEmptyText() {
        registry.put(key(), "former");
        IllegalArgumentException refusal =
                assertThrows(IllegalArgumentException.class, () -> registry.put(key(), List.of("a", "", "b")));
        assertTrue(refusal.getMessage().contains("text 2 "), refusal::getMessage);
        assertEquals("former", registry.getText(key()));
    }

    @ParameterizedTest
    @ValueSource(ints = {0, 1, -1, 9_999, 123_456_789, 1_094_861_636, Integer.MAX_VALUE, Integer.MIN_VALUE})
    void numbersReadBack(int number) {
        registry.put(below("int"), number);
        assertEquals(number, registry.getInt(below("int")));
        assertEquals(OptionalInt.of(number), registry.findInt(below("int")));
        assertEquals(number, registry.getInt(below("int"), 7));
        assertEquals(number, registry.getLong(below("int")));
        assertEquals(OptionalLong.of(number), registry.findLong(below("int")));
        assertEquals(number, registry.getLong(below("int"), 7));
        assertEquals(ValueType.INT32, registry.stat(below("int")).type());
        long large = number * 4_294_967_297L;
        registry.put(below("long"), large);
        assertEquals(large, registry.getLong(below("long")));
        assertEquals(OptionalLong.of(large), registry.findLong(below("long")));
        assertEquals(large, registry.getLong(below("long"), 7));
        assertEquals(ValueType.INT64, registry.stat(below("long")).type());
    }

    @ParameterizedTest
    @ValueSource(ints = {0, 1, 3, 4, 8, 1_023, 1_024, 1_025, 2_048, 4_000, 4_096, 4_097, 100_000, MEBIBYTE})
    void bytesReadBack(int size) {
        byte[] bytes = new byte[size];
        new Random(size).nextBytes(bytes);
        registry.put(key(), bytes);
        assertArrayEquals(bytes, registry.getBytes(key()));
        assertArrayEquals(bytes, registry.findBytes(key()).orElseThrow());
        assertArrayEquals(bytes, registry.getBytes(key(), null));
        assertEquals(size, registry.stat(key()).size());
        assertEquals(new Value.Bytes(bytes), registry.value(key()));
    }

    @Test
    void otherTypesAreTexts() {
        registry.put(below("true"), true);
        registry.put(below("false"), false);
        registry.put(below("double"), -1.5e300);
        registry.put(below("nan"), Double.NaN);
        registry.put(below("duration"), Duration.ofMillis(90_500));
        registry.put(below("enum"), RoundingMode.HALF_UP);
        assertTrue(registry.getBoolean(below("true")));
        assertEquals(Optional.of(false), registry.findBoolean(below("false")));
        assertEquals(false, registry.getBoolean(below("false"), true));
        assertEquals(-1.5e300, registry.getDouble(below("double")));
        assertEquals(OptionalDouble.of(-1.5e300), registry.findDouble(below("double")));
        assertEquals(-1.5e300, registry.getDouble(below("double"), 7.0));
        assertTrue(Double.isNaN(registry.getDouble(below("nan"))));
        assertEquals(Duration.ofMillis(90_500), registry.getDuration(below("duration")));
        assertEquals(Optional.of(Duration.ofMillis(90_500)), registry.findDuration(below("duration")));
        assertEquals(Duration.ofMillis(90_500), registry.getDuration(below("duration"), Duration.ZERO));
        assertEquals(RoundingMode.HALF_UP, registry.getEnum(below("enum"), RoundingMode.class));
        assertEquals(Optional.of(RoundingMode.HALF_UP), registry.findEnum(below("enum"), RoundingMode.class));
        assertEquals(RoundingMode.HALF_UP, registry.getEnum(below("enum"), RoundingMode.DOWN));
        assertEquals(List.of("true", "false", "-1.5E300", "NaN", "PT1M30.5S", "HALF_UP"),
                     Stream.of("true", "false", "double", "nan", "duration", "enum")
                             .map(name -> registry.getText(below(name))).toList());
    }

    @ParameterizedTest
    @ValueSource(doubles = {0.0, -0.0, 1, 0.1, Math.PI, -1e-7, Double.MIN_VALUE, Double.MAX_VALUE, Double.NaN,
                            Double.POSITIVE_INFINITY, Double.NEGATIVE_INFINITY})
    void aFloatingPointNumberReadsBack(double number) {
        registry.put(key(), number);
        assertEquals(Double.toString(number), registry.getText(key()));
        assertEquals(number, registry.getDouble(key()));
        assertEquals(OptionalDouble.of(number), registry.findDouble(key()));
        assertEquals(number, registry.getDouble(key(), 7));
    }

    @Test
    void numbersThatOperatorsWriteAreFloatingPointNumbers() {
        Map.of("1", 1.0, "-7", -7.0, "1e3", 1000.0, ".5", 0.5, "+2.", 2.0).forEach((text, number) -> {
            registry.put(key(), text);
            assertEquals(number, registry.getDouble(key()));
        });
    }

    static Stream<Duration> durations() {
        return Stream.of(Duration.ZERO, Duration.ofNanos(1), Duration.ofNanos(-1), Duration.ofMillis(-90_500),
                         Duration.ofDays(400), Duration.ofSeconds(Long.MAX_VALUE, 999_999_999),
                         Duration.ofSeconds(Long.MIN_VALUE));
    }

    @ParameterizedTest
    @MethodSource("durations")
    void aDurationReadsBack(Duration duration) {
        registry.put(key(), duration);
        assertEquals(duration.toString(), registry.getText(key()));
        assertEquals(duration, registry.getDuration(key()));
        assertEquals(Optional.of(duration), registry.findDuration(key()));
        assertEquals(duration, registry.getDuration(key(), null));
    }

    /** Has a constant with a class of its own, and names that are not what they are shown as. */
    private enum Level {
        LOW {
            @Override
            public String toString() {
                return "low";
            }
        },
        HIGH
    }

    @Test
    void aConstantIsStoredByItsName() {
        registry.put(key(), Level.LOW);
        assertEquals("LOW", registry.getText(key()));
        assertEquals(Level.LOW, registry.getEnum(key(), Level.class));
        assertEquals(Level.LOW, registry.getEnum(key(), Level.HIGH));
        registry.put(key(), Level.HIGH);
        assertEquals(Level.HIGH, registry.getEnum(key(), Level.LOW));
        assertEquals(Optional.of(Level.HIGH), registry.findEnum(key(), Level.class));
    }

    /** Texts that are no value of a type, by the type's name in messages. */
    static Map<String, List<String>> otherTexts() {
        return Map.of("a boolean", List.of("", "TRUE", "True", "yes", "1", "0", "true ", " false", "true\n"),
                      "a floating point number", List.of("", " ", "one", "1,5", "1 2", "--1", "1e", "0x1", "nan"),
                      "a duration", List.of("", "90", "90 s", "P", "PT", "P1Y", "1m", "PT1M ",
                                            "PT99999999999999999999S", "PT9223372036854775808S"),
                      "a constant of RoundingMode", List.of("", "half_up", "HALF_UP ", "HALFUP", "4", "NONE"));
    }

    @Test
    void aTextThatIsNoValueOfATypeIsNotTakenForOne() {
        otherTexts().forEach((wanted, texts) -> texts.forEach(text -> {
            registry.put(key(), text);
            readers().get(wanted).forEach(reader -> assertWrong("a text", wanted, reader));
        }));
    }

    /** Every way to read a value as a type, by the type's name in messages. */
    private Map<String, List<Function<String, Object>>> readers() {
        return Map.of(
                "a text", List.of(registry::getText, registry::findText, k -> registry.getText(k, "")),
                "a list", List.of(registry::getList, registry::findList, k -> registry.getList(k, null)),
                "an int32", List.of(registry::getInt, registry::findInt, k -> registry.getInt(k, 1)),
                "an int64", List.of(registry::getLong, registry::findLong, k -> registry.getLong(k, 1)),
                "bytes", List.of(registry::getBytes, registry::findBytes, k -> registry.getBytes(k, null)),
                "a boolean", List.of(registry::getBoolean, registry::findBoolean, k -> registry.getBoolean(k, true)),
                "a floating point number",
                List.of(registry::getDouble, registry::findDouble, k -> registry.getDouble(k, 1.0)),
                "a duration", List.of(registry::getDuration, registry::findDuration,
                                      k -> registry.getDuration(k, Duration.ZERO)),
                "a constant of RoundingMode",
                List.of(k -> registry.getEnum(k, RoundingMode.class), k -> registry.findEnum(k, RoundingMode.class),
                        k -> registry.getEnum(k, RoundingMode.UP)));
    }

    private void assertWrong(String found, String wanted, Function<String, Object> reader) {
        WrongTypeException wrong = assertThrows(WrongTypeException.class, () -> reader.apply(key()), wanted);
        assertEquals("TKV-0008: key '" + key() + "' holds " + found + ", not " + wanted, wrong.text());
        assertEquals(key(), wrong.key());
    }

    @Test
    void aValueOfAnotherTypeIsNeverConverted() {
        Map<String, Value> values = Map.of("a text", new Value.Text("twelve"),
                                           "a list", new Value.TextList(List.of("twelve")),
                                           "an int32", new Value.Int32(1_094_861_636),
                                           "an int64", new Value.Int64(12), "bytes", new Value.Bytes(new byte[4]));
        values.forEach((found, value) -> {
            registry.put(key(), value);
            assertEquals(value, registry.value(key()));
            readers().forEach((wanted, forms) -> {
                boolean widened = found.equals("an int32") && wanted.equals("an int64");
                if (!found.equals(wanted) && !widened) {
                    forms.forEach(reader -> assertWrong(found, wanted, reader));
                }
            });
        });
    }

    @Test
    void aKeyWithoutAValueHasNoneOfAnyType() {
        registry.create(key());
        assertEquals(new Value.None(), registry.value(key()));
        readers().forEach((wanted, forms) -> {
            assertWrong("no value", wanted, forms.get(0));
            assertTrue(List.of(Optional.empty(), OptionalInt.empty(), OptionalLong.empty(), OptionalDouble.empty())
                               .contains(forms.get(1).apply(key())), wanted);
        });
        assertDefaults(key());
    }

    @Test
    void anAbsentKeyHasNoValue() {
        assertEquals(Optional.empty(), registry.findValue(key()));
        assertThrows(KeyNotFoundException.class, () -> registry.value(key()));
        readers().forEach((wanted, forms) -> {
            assertThrows(KeyNotFoundException.class, () -> forms.get(0).apply(key()), wanted);
            assertTrue(List.of(Optional.empty(), OptionalInt.empty(), OptionalLong.empty(), OptionalDouble.empty())
                               .contains(forms.get(1).apply(key())), wanted);
        });
        assertDefaults(key());
    }

    private void assertDefaults(String name) {
        assertNull(registry.getText(name, null));
        assertEquals("d", registry.getText(name, "d"));
        assertNull(registry.getList(name, null));
        assertEquals(1, registry.getInt(name, 1));
        assertEquals(1, registry.getLong(name, 1));
        assertEquals(List.of("d", ""), registry.getList(name, List.of("d", "")));
        assertEquals(Integer.MIN_VALUE, registry.getInt(name, Integer.MIN_VALUE));
        assertEquals(Long.MIN_VALUE, registry.getLong(name, Long.MIN_VALUE));
        assertNull(registry.getBytes(name, null));
        assertArrayEquals(new byte[] {1}, registry.getBytes(name, new byte[] {1}));
        assertNull(registry.getDuration(name, null));
        assertTrue(registry.getBoolean(name, true));
        assertEquals(1.5, registry.getDouble(name, 1.5));
        assertEquals(Duration.ZERO, registry.getDuration(name, Duration.ZERO));
        assertEquals(RoundingMode.UP, registry.getEnum(name, RoundingMode.UP));
    }

    @Test
    void aValueCanBeTakenAway() {
        registry.put(key(), "text");
        registry.put(key(), new Value.None());
        assertEquals(new Value.None(), registry.value(key()));
        registry.put(below("new"), new Value.None());
        assertTrue(registry.exists(below("new")));
        assertThrows(KeyNotFoundException.class, () -> registry.put(below("no.parent"), new Value.None()));
    }

    @Test
    void sizesGoUpToTheRegistrysLimit() {
        String text = "x".repeat(MEBIBYTE - 1);
        registry.put(below("text"), text);
        assertEquals(text, registry.getText(below("text")));
        List<String> list = List.of("y".repeat(MEBIBYTE / 2 - 1), "z".repeat(MEBIBYTE / 2 - 2));
        registry.put(below("list"), list);
        assertEquals(list, registry.getList(below("list")));
        for (Value large : List.of(new Value.Text(text + "x"), new Value.TextList(List.of(list.get(0) + "a", list.get(1))),
                                   new Value.Bytes(new byte[MEBIBYTE + 1]))) {
            registry.put(key(), "former");
            ValueTooLargeException refusal = assertThrows(ValueTooLargeException.class,
                                                          () -> registry.put(key(), large));
            assertEquals(10, refusal.code());
            assertEquals("former", registry.getText(key()));
        }
    }

    @Test
    void aListOfManyTextsGoesUpToTheRegistrysLimit() {
        // Each text takes two bytes, and the end of the list one.
        List<String> texts = new ArrayList<>(Collections.nCopies(MEBIBYTE / 2 - 2, "x"));
        texts.add("yz");
        registry.put(key(), texts);
        assertEquals(MEBIBYTE, registry.stat(key()).size());
        assertEquals(texts, registry.getList(key()));
        assertEquals(texts, registry.findList(key()).orElseThrow());
        try (Snapshot state = registry.snapshot()) {
            assertEquals(texts, state.getList(key()));
        }
        texts.set(0, "xx");
        assertThrows(ValueTooLargeException.class, () -> registry.put(key(), texts));
        assertEquals("x", registry.getList(key()).get(0));
    }

    /** Six bytes in modified UTF-8 for one character. */
    @Test
    void bytesAreCountedInModifiedUtf8() {
        String text = "\ud83d\ude00".repeat((MEBIBYTE - 1) / 6);
        registry.put(key(), text);
        assertEquals(text, registry.getText(key()));
        assertEquals(text.length() * 3L + 1, registry.stat(key()).size());
        assertThrows(ValueTooLargeException.class, () -> registry.put(key(), text + "\ud83d\ude00"));
    }

    @Test
    void valuesKnowTheirTypes() {
        assertEquals(-7, new Value.Int32(-7).number());
        assertEquals(1L << 40, new Value.Int64(1L << 40).number());
        List<Value> values = List.of(new Value.None(), new Value.Int32(1), new Value.Int64(1), new Value.Text(""),
                                     new Value.Bytes(new byte[0]), new Value.TextList(List.of()));
        assertEquals(List.of(ValueType.values()), values.stream().map(Value::type).toList());
        assertEquals(List.of(0, 1, 2, 3, 4, 5), values.stream().map(value -> value.type().code()).toList());
    }

    @Test
    void valuesAreValues() {
        byte[] bytes = {1, 2};
        Value.Bytes value = new Value.Bytes(bytes);
        bytes[0] = 9;
        value.bytes()[1] = 9;
        assertEquals(new Value.Bytes(new byte[] {1, 2}), value);
        assertEquals(new Value.Bytes(new byte[] {1, 2}).hashCode(), value.hashCode());
        assertNotEquals(new Value.Bytes(bytes), value);
        assertEquals(2, value.size());
        assertEquals("Bytes[2]", value.toString());
        List<String> texts = new ArrayList<>(List.of("a"));
        Value.TextList list = new Value.TextList(texts);
        texts.add("b");
        assertEquals(List.of("a"), list.texts());
        assertThrows(UnsupportedOperationException.class, () -> list.texts().add("b"));
        assertThrows(NullPointerException.class, () -> new Value.Text(null));
    }

    @Test
    void whatOtherProgramsStoredIsReadAsItIs() throws IOException, InterruptedException {
        Command.importKeys(top, List.of(
                "{\"name\":\"" + top + "\"}", stored(below("broken"), 3, 0xFF, 0), stored(below("foreign"), 17, 1, 2),
                stored(below("inner"), 3, 'a', 0, 'b'), stored(below("int3"), 1, 1, 2, 3),
                stored(below("list"), 5, 0, 'l', 'o', 's', 't', 0, 0), stored(below("unended"), 3, 'a', 'b'),
                stored(below("utf8"), 3, 0xF0, 0x9F, 0x98, 0x80, 0)));
        assertEquals(new Value.Bytes(1, new byte[] {1, 2, 3}), registry.value(below("int3")));
        assertEquals(17, ((Value.Bytes) registry.value(below("foreign"))).typeCode());
        assertEquals("ab", registry.getText(below("unended")));
        assertEquals("\ud83d\ude00", registry.getText(below("utf8")));
        for (String name : List.of("inner", "broken")) {
            WrongTypeException wrong = assertThrows(WrongTypeException.class, () -> registry.getText(below(name)));
            assertTrue(wrong.text().endsWith("holds bytes of type 3, not a text"), wrong::text);
        }
        assertThrows(WrongTypeException.class, () -> registry.getList(below("list")));
        assertThrows(WrongTypeException.class, () -> registry.getBytes(below("foreign")));
        assertEquals(ValueType.BYTES, registry.stat(below("foreign")).type());
        registry.put(below("copy"), registry.value(below("int3")));
        assertEquals(registry.value(below("int3")), registry.value(below("copy")));
    }

    /** Returns a key as a line of an import, with the bytes of its value. */
    private static String stored(String name, int type, int... bytes) {
        String base64 = Base64.getEncoder().encodeToString(array(bytes));
        return "{\"name\":\"" + name + "\",\"type\":" + type + ",\"value\":{\"base64\":\"" + base64 + "\"}}";
    }

    private static byte[] array(int... bytes) {
        byte[] array = new byte[bytes.length];
        for (int i = 0; i < bytes.length; i++) {
            array[i] = (byte) bytes[i];
        }
        return array;
    }

    @Test
    void theCommandReadsWhatJavaWrote() throws IOException, InterruptedException {
        registry.put(below("text"), "größer");
        registry.put(below("list"), List.of("a", "b"));
        registry.put(below("int"), 1_094_861_636);
        registry.put(below("long"), -2L);
        assertEquals(List.of("größer"), Command.run("get", below("text")));
        assertEquals(List.of("a", "b"), Command.run("get", below("list")));
        assertEquals(List.of("-2"), Command.run("get", below("long")));
    }

    /** What a program makes for its own tests: the methods without a default. */
    private static final class StandIn implements RegistryReader {
        private final KeyInfo info = new KeyInfo("k", ValueType.INT32, 4, false, EnumSet.of(Right.READ),
                                                 KeySecurity.open().withOwner("u").withGroup("g"), 7, Optional.empty(),
                                                 Optional.empty());

        @Override
        public Optional<Value> findValue(String name) {
            return name.equals("k") ? Optional.of(new Value.Int32(5)) : Optional.empty();
        }

        @Override
        public boolean exists(String name) {
            return name.equals("k");
        }

        @Override
        public List<String> list(String name) {
            return List.of();
        }

        @Override
        public Stream<Entry> walk(String name, int depth) {
            throw new KeyNotFoundException(name, String.valueOf(depth));
        }

        @Override
        public KeyInfo stat(String name) {
            return info;
        }

        @Override
        public EnumSet<Right> rights(String name) {
            return EnumSet.of(Right.READ);
        }
    }

    @Test
    void aStandInNeedsSixMethods() {
        RegistryReader reader = new StandIn();
        assertEquals(5, reader.getInt("k"));
        assertEquals(5, reader.getLong("k"));
        assertEquals(1, reader.getInt("absent", 1));
        assertEquals(OptionalInt.empty(), reader.findInt("absent"));
        assertEquals("absent", assertThrows(KeyNotFoundException.class, () -> reader.getText("absent")).key());
        assertEquals("k", assertThrows(WrongTypeException.class, () -> reader.getText("k")).key());
        assertEquals(Optional.of("u"), reader.owner("k"));
        assertEquals(Optional.of("g"), reader.group("k"));
        assertEquals("1", assertThrows(KeyNotFoundException.class, () -> reader.entries("k")).text());
        assertEquals(String.valueOf(Integer.MAX_VALUE),
                     assertThrows(KeyNotFoundException.class, () -> reader.walk("k")).text());
    }

    @Test
    void bothFormsOfUtf8AreDecoded() {
        assertEquals("a\u0000\ud83d\ude00", decoded(0x61, 0xC0, 0x80, 0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80));
        assertEquals("\ud83d\ude00é日", decoded(0xF0, 0x9F, 0x98, 0x80, 0xC3, 0xA9, 0xE6, 0x97, 0xA5));
        for (int[] bad : new int[][] {{0x80}, {0xC3}, {0xC1, 0x81}, {0xE0, 0x80, 0x80}, {0xC3, 0x41}, {0xFF},
                                      {0xF4, 0x90, 0x80, 0x80}, {0xF8, 0x80, 0x80, 0x80, 0x80}, {0xE6, 0x97}}) {
            assertNull(decoded(bad));
        }
        for (int unit = 0; unit <= Character.MAX_VALUE; unit++) {
            String text = "x" + (char) unit;
            byte[] bytes = ModifiedUtf8.encode(text);
            assertEquals(text, ModifiedUtf8.decode(bytes, 0, bytes.length));
        }
    }

    private static String decoded(int... bytes) {
        return ModifiedUtf8.decode(array(bytes), 0, bytes.length);
    }
}
