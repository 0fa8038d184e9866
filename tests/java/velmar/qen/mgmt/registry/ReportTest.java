package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertDoesNotThrow;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** The interpretation of native methods' reports, including those that a healthy registry does not produce. */
class ReportTest {
    private static Report told(Object... reports) {
        return tell(new Report(), reports);
    }

    private static <R extends Report> R tell(R report, Object... reports) {
        for (Object told : reports) {
            if (told instanceof Boolean status) {
                report.setStatus(status);
            } else if (told instanceof Integer code) {
                report.setTKVErrCode(code);
            } else {
                report.setTKVResultString((String) told);
            }
        }
        return report;
    }

    @Test
    void onlyAStatusOfTrueAloneIsSuccess() {
        assertFalse(told(true).failed());
        assertFalse(told(true, true).failed());
        assertTrue(told().failed());
        assertTrue(told(false, 4).failed());
        assertTrue(told(false, "TKV-0004: text", true).failed());
        assertTrue(told(false, 0, true).failed());
        assertTrue(told("text alone").failed());
    }

    @ParameterizedTest
    @CsvSource({"2, AccessDeniedException", "4, KeyNotFoundException", "5, InvalidNameException",
                "6, KeyNotEmptyException", "7, RegistryDamagedException", "9, ValueTooLargeException",
                "10, ValueTooLargeException", "11, StorageFullException", "15, RegistryUnavailableException",
                "55, KeyExistsException", "3, RegistryException", "12, RegistryException", "14, RegistryException",
                "17, RegistryException", "18, RegistryUnusableException",
                "19, RegistryBusyException", "20, UndecidedException", "41, RegistryException",
                "1234, RegistryException"})
    void theCodeDecidesTheKind(int code, String kind) {
        for (Report report : new Report[] {told(false, code),
                                           told(false, String.format("TKV-%04d: something of key 'k'", code))}) {
            RegistryException failure = report.exception("k");
            assertEquals(kind, failure.getClass().getSimpleName());
            assertEquals(code, failure.code());
            assertEquals("k", failure.key());
        }
    }

    @Test
    void aTextWithoutACodeIsKept() {
        RegistryException failure = told("JNI: clsugetconf failed").exception(null);
        assertEquals(14, failure.code());
        assertEquals("JNI: clsugetconf failed", failure.text());
    }

    @Test
    void noReportAtAllIsAnUnknownFailure() {
        assertEquals(14, told().exception("k").code());
        assertEquals("TKV-0014: the registry reported no reason", told().exception("k").text());
    }

    @Test
    void theCodesOfAMissingSessionAreAClosedRegistry() {
        assertSame(RegistryClosedException.class, told(false, 0).exception("k").getClass());
        assertSame(RegistryClosedException.class, told(false, 1).exception("k").getClass());
    }

    @Test
    void theFirstTextIsTheCause() {
        assertEquals("TKV-0009: first", told(false, "TKV-0009: first", false, "TKV-0003: second", false, 0, true)
                .exception("k").text());
    }

    @Test
    void aCopysLastStepIsReadFromItsTrace() {
        TreeCopy done = tell(new TreeCopy(), true, true);
        done.trace("copyRecurse: prtkv_set_key_security for key [t], rc=0\n");
        assertDoesNotThrow(() -> done.check("s", "t"));
        TreeCopy failed = tell(new TreeCopy(), true);
        failed.trace("copyRecurse: prtkv_set_key_security for key [t], rc=7\n");
        RegistryDamagedException failure = assertThrows(RegistryDamagedException.class, () -> failed.check("s", "t"));
        assertEquals("t", failure.key());
        TreeCopy below = tell(new TreeCopy(), true, true);
        below.trace("prsrvtkv_copy_recurse: prtkv_set_key_security for key [t], rc=7\n");
        assertDoesNotThrow(() -> below.check("s", "t"));
    }
}
