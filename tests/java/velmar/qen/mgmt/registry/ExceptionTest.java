package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import java.util.Map;
import java.util.function.BiFunction;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class ExceptionTest {
    @ParameterizedTest
    @CsvSource({"2, MissingRightException", "4, KeyNotFoundException", "5, InvalidNameException",
                "6, KeyNotEmptyException", "7, RegistryDamagedException", "10, ValueTooLargeException",
                "11, StorageFullException", "15, RegistryUnavailableException", "18, RegistryUnusableException",
                "19, RegistryBusyException", "20, UndecidedException", "21, ConflictException",
                "55, KeyExistsException",
                "8, RegistryException", "12, RegistryException", "14, RegistryException", "17, RegistryException",
                "41, RegistryException", "42, RegistryException", "1234, RegistryException"})
    void theCodeDecidesTheKind(int code, String kind) {
        RegistryException failure = RegistryException.of(code, "k", "what happened");
        assertEquals(kind, failure.getClass().getSimpleName());
        assertEquals(code, failure.code());
        assertEquals("k", failure.key());
        assertEquals(String.format("TKV-%04d: what happened", code), failure.text());
        assertEquals(failure.text(), failure.getMessage());
        assertInstanceOf(IllegalStateException.class, failure);
    }

    @Test
    void aClosedRegistryIsAboutNoKey() {
        RegistryException closed = RegistryException.of(3, "k", "the registry is closed");
        assertInstanceOf(RegistryClosedException.class, closed);
        assertEquals(3, closed.code());
        assertNull(closed.key());
    }

    @Test
    void controlCharactersOfNamesAreNotShown() {
        assertEquals("TKV-0004: key 'a?b?' 100 %", RegistryException.of(4, "k", "key 'a\nb\u0085' 100 %").text());
    }

    @Test
    void everyExceptionCanBeCreated() {
        Map<Integer, BiFunction<String, String, RegistryException>> kinds = Map.ofEntries(
                Map.entry(2, MissingRightException::new), Map.entry(4, KeyNotFoundException::new),
                Map.entry(5, InvalidNameException::new), Map.entry(6, KeyNotEmptyException::new),
                Map.entry(7, RegistryDamagedException::new), Map.entry(10, ValueTooLargeException::new),
                Map.entry(11, StorageFullException::new), Map.entry(15, RegistryUnavailableException::new),
                Map.entry(18, RegistryUnusableException::new), Map.entry(19, RegistryBusyException::new),
                Map.entry(20, UndecidedException::new), Map.entry(21, ConflictException::new),
                Map.entry(55, KeyExistsException::new));
        kinds.forEach((code, kind) -> {
            RegistryException made = kind.apply("k", "text");
            assertEquals(List.of(code, "k", "text"), List.of(made.code(), made.key(), made.text()));
        });
        assertEquals(3, new RegistryClosedException("text").code());
        assertEquals(17, new RegistryException(17, null, "text").code());
    }

    @Test
    void aWrongTypeNamesBothTypes() {
        WrongTypeException wrong = new WrongTypeException("k", "a text", "an int32");
        assertEquals("TKV-0008: key 'k' holds a text, not an int32", wrong.text());
        assertEquals(8, wrong.code());
        assertEquals("k", wrong.key());
    }

    @Test
    void aReplyIsNothingOrACode() {
        assertEquals(0, Reply.code(null));
        assertTrue(Reply.result(null).atEnd());
        assertEquals(0x01020384, Reply.code(new byte[] {1, 2, 3, (byte) 0x84}));
        assertFalse(Reply.result(new byte[] {0, 0, 0, 0, 9}).atEnd());
        assertEquals("out of memory", Reply.message(new byte[] {0, 0, 0, 12}));
    }
}
