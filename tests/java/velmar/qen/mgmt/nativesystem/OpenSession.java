package velmar.qen.mgmt.nativesystem;

import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.TestInfo;

/** Base of tests that need a session. The root is the working key, and each test has a top-level key of its own. */
abstract class OpenSession {
    static final int OWNED_BY = 1;
    static final int INHERITED = 2;
    static final int AS_SESSION = 3;
    static final int OPEN = 5;

    final TKVNative tkv = new TKVNative();
    /** The full name of the test's own key and a dot, which the names of its subkeys begin with. */
    String top;

    @BeforeEach
    void openSession(TestInfo test) {
        assertDone(r -> tkv.initializeTKVLevel(0, r));
        assertDone(r -> tkv.openKey("", r));
        String name = getClass().getSimpleName() + "-" + test.getTestMethod().orElseThrow().getName()
                + Math.floorMod(test.getDisplayName().hashCode(), 100_000);
        assertDone(r -> tkv.createKey(name, AS_SESSION, "", null, null, r));
        top = name + ".";
    }

    @AfterEach
    void closeSession() {
        assertDone(tkv::terminateTKV);
    }

    /** Returns the full name of the test's own key. */
    String parent() {
        return top.substring(0, top.length() - 1);
    }

    void create(String name) {
        assertDone(r -> tkv.createKey(name, AS_SESSION, "", null, null, r));
    }

    void put(String name, String value) {
        assertDone(r -> tkv.setKeyValue(name, value, AS_SESSION, "", null, null, r));
    }

    String get(String name) {
        return done(r -> tkv.getKeyValue(name, r));
    }

    boolean exists(String name) {
        return done(r -> tkv.keyExists(name, r));
    }
}
