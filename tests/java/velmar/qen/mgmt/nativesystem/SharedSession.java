package velmar.qen.mgmt.nativesystem;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;

/** Base of classes whose tests share one session. The root is the working key. */
abstract class SharedSession {
    static final TKVNative TKV = new TKVNative();

    @BeforeAll
    static void openSession() {
        Reports.assertDone(r -> TKV.initializeTKVLevel(0, r));
        Reports.assertDone(r -> TKV.openKey("", r));
    }

    @AfterAll
    static void closeSession() {
        Reports.assertDone(TKV::terminateTKV);
    }
}
