package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;

class TracingTest extends OpenSession {
    @AfterEach
    void traceNothingMore() {
        TKVResult.setTracing(false);
    }

    @Test
    void aMethodTracesEachOfItsSteps() {
        put(top + "k", "100 %");
        TKVResult.setTracing(true);
        Recorder result = new Recorder();
        tkv.getKeyValue(top + "k", result);
        assertEquals(List.of("getKeyValue: prtkv_open_key retval = 0\n",
                             "getKeyValue: prtkv_get_value retval = 0, size = 6\n",
                             "getKeyValue: value is [100 %] dtype = 3\n"), result.lines());
    }

    @Test
    void aFailureIsTracedWithTheNameOfTheKey() {
        TKVResult.setTracing(true);
        Recorder result = new Recorder();
        tkv.openKey("größe.\ud83d\ude00", result);
        assertEquals(List.of("openKey: prtkv_open_key retval = 4\n",
                             "openKey: prtkv_open_key failed for TKV key größe.\ud83d\ude00\n"), result.lines());
    }

    @Test
    void longLinesAreWhole() {
        String value = "v".repeat(5_000);
        put(top + "k", value);
        TKVResult.setTracing(true);
        Recorder result = new Recorder();
        tkv.getKeyValue(top + "k", result);
        assertTrue(result.lines().contains("getKeyValue: value is [" + value + "] dtype = 3\n"));
    }

    @Test
    void nothingIsTracedWhileTracingIsOff() {
        TKVResult.setTracing(true);
        TKVResult.setTracing(false);
        Recorder result = new Recorder();
        tkv.isCluster(result);
        tkv.getTKVLocations(result);
        tkv.openKey("absent", result);
        assertEquals(List.of(), result.lines());
    }
}
