package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.io.IOException;
import java.util.List;
import org.junit.jupiter.api.Test;

/** Runs under a user id and a group id that have no names: both are identified by their number. */
class NamelessUserTest extends SharedSession {
    private static final String ID = "54321";

    @Test
    void ownsTheKeysThatItCreates() {
        Reports.assertDone(r -> TKV.createKey("own", 3, "", null, null, r));
        assertEquals(ID, done(r -> TKV.getUserName("own", r)));
        assertEquals(ID, done(r -> TKV.getGroupName("own", r)));
        Reports.assertDone(r -> TKV.setKeyValue("own", "v", 3, "", null, null, r));
        assertEquals("v", done(r -> TKV.getKeyValue("own", r)));
    }

    @Test
    void isTheSameUserForTheCommand() throws IOException, InterruptedException {
        Command.run("set", "commanded", "v");
        assertEquals(ID, done(r -> TKV.getUserName("commanded", r)));
        assertEquals(ID, done(r -> TKV.getGroupName("commanded", r)));
        Reports.assertDone(r -> TKV.createKey("native", 3, "", null, null, r));
        assertEquals(List.of("rlwscd"), Command.run("access", ID, "native"));
    }
}
