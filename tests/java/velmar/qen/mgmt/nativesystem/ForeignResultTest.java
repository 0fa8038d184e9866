package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;

/** Result objects that are no {@link TKVResult}. */
class ForeignResultTest extends OpenSession {
    /** The methods that the native side calls, and nothing else. */
    public static final class Foreign {
        private final List<Object> told = new ArrayList<>();

        public void setStatus(boolean status) {
            told.add(status);
        }

        public void setBooleanResult(boolean answer) {
            told.add(answer);
        }

        public void setTKVErrCode(int code) {
            told.add(code);
        }

        public void setTKVResultString(String text) {
            told.add(text);
        }

        public void trace(String line) {
            told.add(line);
        }
    }

    /** Has no text and no trace. */
    public static final class Sparse {
        private boolean status;

        public void setStatus(boolean newStatus) {
            status = newStatus;
        }
    }

    /** Does not want to hear of failures. */
    static final class Throwing extends TKVResult {
        @Override
        public void setTKVResultString(String text) {
            throw new UnsupportedOperationException(text);
        }
    }

    @Test
    void anyObjectWithTheMethodsTakesReports() {
        Foreign result = new Foreign();
        assertFalse(tkv.keyExists(top + "absent", result));
        tkv.openKey(top + "absent", result);
        tkv.isCluster(result);
        assertEquals(List.of(true, false, "TKV-0004: key '" + top + "absent' does not exist", true),
                     result.told.subList(0, 4));
        assertEquals(5, result.told.size());
    }

    @Test
    void anyObjectWithTheMethodsTakesTraceLines() {
        Foreign result = new Foreign();
        TKVResult.setTracing(true);
        tkv.openKey("", result);
        TKVResult.setTracing(false);
        assertEquals(List.of("openKey: prtkv_open_key retval = 0\n", true), result.told);
    }

    @Test
    void aMethodThatAnObjectDoesNotHaveIsNotCalled() {
        Sparse result = new Sparse();
        TKVResult.setTracing(true);
        tkv.openKey("", result);
        assertTrue(result.status);
        tkv.openKey("absent", result);
        assertFalse(result.status);
        TKVResult.setTracing(false);
    }

    @Test
    void anExceptionOfTheObjectReachesTheCaller() {
        assertThrows(UnsupportedOperationException.class, () -> tkv.openKey("absent", new Throwing()));
        assertThrows(UnsupportedOperationException.class, () -> tkv.deleteKey("", true, new Throwing()));
        assertNull(get(parent()));
    }
}
