package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import java.util.function.Consumer;
import java.util.function.Function;

/** Assertions about what a native method has reported. */
final class Reports {
    static final List<String> DONE = List.of("status true");

    private Reports() {}

    /** Asserts that a call succeeds and reports nothing else. */
    static void assertDone(Consumer<Recorder> call) {
        Recorder result = new Recorder();
        call.accept(result);
        assertEquals(DONE, result.reports());
    }

    /** Asserts that a call succeeds and reports nothing else, and returns its result. */
    static <T> T done(Function<Recorder, T> call) {
        Recorder result = new Recorder();
        T answer = call.apply(result);
        assertEquals(DONE, result.reports());
        return answer;
    }

    /** Asserts that a call reports a code and no text. */
    static void assertCode(int code, Consumer<Recorder> call) {
        Recorder result = new Recorder();
        call.accept(result);
        assertEquals(List.of("status false", "code " + code), result.reports());
    }

    /** Asserts that a call reports the registry's text and no code. */
    static void assertRefused(int code, String subject, Consumer<Recorder> call) {
        Recorder result = new Recorder();
        call.accept(result);
        assertRefusal(code, subject, result.reports());
    }

    /** Asserts a status of false and the registry's text for a result code, which must mention the subject. */
    static void assertRefusal(int code, String subject, List<String> reports) {
        assertEquals(2, reports.size(), reports::toString);
        assertEquals("status false", reports.get(0));
        assertText(code, subject, reports.get(1));
    }

    static void assertText(int code, String subject, String report) {
        assertTrue(report.startsWith(String.format("text TKV-%04d: ", code)), report);
        assertTrue(report.contains(subject), report);
    }
}
