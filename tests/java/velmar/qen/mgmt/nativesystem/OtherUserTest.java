package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static velmar.qen.mgmt.nativesystem.Reports.assertRefused;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.util.function.Consumer;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/**
 * The user nobody, in the group nogroup, on a registry that root has created with {@link OtherUsersRegistry}:
 * a key for each kind of ownership.
 */
class OtherUserTest extends SharedSession {
    private static boolean allowed(String right, String key) {
        return switch (right) {
            case "read" -> outcome(r -> TKV.getKeyValue(key, r));
            case "list" -> outcome(r -> TKV.listSubKeys(key, r));
            case "write" -> outcome(r -> TKV.setKeyValue(key, "rewritten", 3, "", null, null, r));
            case "create" -> outcome(r -> TKV.createKey(key + ".new", 3, "", null, null, r));
            case "delete" -> outcome(r -> TKV.deleteKey(key + ".victim", false, r));
            default -> throw new AssertionError(right);
        };
    }

    /** Returns whether a call is allowed. A refusal must report a missing right. */
    private static boolean outcome(Consumer<Recorder> call) {
        Recorder result = new Recorder();
        call.accept(result);
        if (!result.getStatus()) {
            Reports.assertRefusal(2, "", result.reports());
        }
        return result.getStatus();
    }

    // The victim below a key has the same security as the key. Others, who are everybody, may read and list.
    @ParameterizedTest
    @CsvSource({"roots, read list", "nobodys, read list write create delete", "nogroups, read list write create delete",
                "as-session, read list", "as-session-nogroup, read list write create delete",
                "open, read list write create delete"})
    void aKeyGrantsWhatItsSecurityTypeSays(String key, String rights) {
        for (String right : new String[] {"read", "list", "write", "create", "delete"}) {
            boolean expected = rights.contains(right);
            assertEquals(expected, allowed(right, key), right);
        }
    }

    @Test
    void aRefusalNamesTheKey() {
        assertRefused(2, "roots", r -> TKV.setKeyValue("roots", "v", 3, "", null, null, r));
        assertRefused(2, "as-session", r -> TKV.createKey("as-session.new", 3, "", null, null, r));
    }

    @Test
    void aRecursiveDeletionIsAllOrNothing() {
        assertRefused(2, "", r -> TKV.deleteKey("mixed", true, r));
        assertArrayEquals(new String[] {"a", "b", "c"}, done(r -> TKV.listSubKeys("mixed", r)));
    }

    @Test
    void aCreatedKeyBelongsToItsCreator() {
        Reports.assertDone(r -> TKV.createKey("nobodys.own", 3, "", null, null, r));
        assertEquals("nobody", done(r -> TKV.getUserName("nobodys.own", r)));
        assertEquals("nogroup", done(r -> TKV.getGroupName("nobodys.own", r)));
    }
}
