package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

class ResultTest {
    private final TKVResult result = new TKVResult();

    @AfterEach
    void traceNothingMore() {
        TKVResult.setTracing(false);
    }

    @Test
    void startsAsAFailureWithoutCodeAndText() {
        assertFalse(result.getStatus());
        assertFalse(result.getBooleanResult());
        assertEquals(0, result.getTKVErrCode());
        assertNull(result.getTKVResultString());
    }

    @Test
    void givesWhatItWasTold() {
        result.setStatus(true);
        result.setBooleanResult(true);
        result.setTKVErrCode(55);
        result.setTKVResultString("TKV_KEY_ALREADY_EXISTS");
        assertTrue(result.getStatus());
        assertTrue(result.getBooleanResult());
        assertEquals(55, result.getTKVErrCode());
        assertEquals("TKV_KEY_ALREADY_EXISTS", result.getTKVResultString());
        assertEquals("status true, code 55, text TKV_KEY_ALREADY_EXISTS", result.toString());
    }

    @Test
    void resetPutsItBackToItsStart() {
        result.setStatus(true);
        result.setBooleanResult(true);
        result.setTKVErrCode(4);
        result.setTKVResultString("text");
        result.reset();
        startsAsAFailureWithoutCodeAndText();
    }

    @Test
    void tracingIsOneSwitchForTheProcess() {
        assertFalse(TKVResult.isTracing());
        TKVResult.setTracing(true);
        assertTrue(TKVResult.isTracing());
        assertEquals(1, TKVResult.TRACE_SWITCH.getInt(0));
        TKVResult.setTracing(false);
        assertFalse(TKVResult.isTracing());
        assertEquals(0, TKVResult.TRACE_SWITCH.getInt(0));
    }

    @Test
    void traceWritesToTheLoggerWithoutReadingTheLineAsAFormat() {
        try (LoggedLines logged = new LoggedLines()) {
            result.trace("\n openKey: {0} %s 'it''s'\n");
            assertEquals(List.of("openKey: {0} %s 'it''s'"), logged.lines());
        }
    }
}
