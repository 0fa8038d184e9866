package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.List;
import java.util.logging.Handler;
import java.util.logging.LogRecord;
import java.util.logging.Logger;
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
        List<String> logged = new ArrayList<>();
        Handler handler = new Handler() {
            @Override
            public void publish(LogRecord record) {
                logged.add(record.getMessage());
            }

            @Override
            public void flush() {}

            @Override
            public void close() {}
        };
        Logger logger = Logger.getLogger("velmar.qen.mgmt.tkv");
        logger.addHandler(handler);
        logger.setUseParentHandlers(false);
        try {
            result.trace("\n openKey: {0} %s 'it''s'\n");
        } finally {
            logger.removeHandler(handler);
            logger.setUseParentHandlers(true);
        }
        assertEquals(List.of("openKey: {0} %s 'it''s'"), logged);
    }
}
