package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static velmar.qen.mgmt.nativesystem.Reports.DONE;
import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.assertRefused;
import static velmar.qen.mgmt.nativesystem.Reports.assertText;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.util.List;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** The owners of new keys, in a session of root. */
@AsRoot
class SecurityTest extends OpenSession {
    private interface Creation {
        void run(String name, int type, String parent, String user, String group, Recorder result);
    }

    private String parent;

    @BeforeEach
    void createParent() {
        parent = top + "parent";
        assertDone(r -> tkv.createKey(parent, OWNED_BY, null, "daemon", "bin", r));
    }

    private List<Creation> creations() {
        return List.of(tkv::createKey,
                       (name, type, from, user, group, r) -> tkv.setKeyValue(name, "v", type, from, user, group, r),
                       (name, type, from, user, group, r) ->
                               tkv.setKeyValues(name, new String[] {"v"}, type, from, user, group, r));
    }

    private void assertCreatesNothing(Creation creation, int type, String from, String user, String group) {
        Recorder result = new Recorder();
        creation.run(top + "k", type, from, user, group, result);
        assertFalse(result.getStatus());
        assertFalse(exists(top + "k"));
    }

    private void assertOwners(String user, String group, String name) {
        assertEquals(user, done(r -> tkv.getUserName(name, r)));
        assertEquals(group, done(r -> tkv.getGroupName(name, r)));
    }

    // Columns: type, user argument, group argument, owner, owning group. The parent belongs to daemon and bin.
    @ParameterizedTest
    @CsvSource({"1, nobody, , nobody, ", "1, nobody, nogroup, nobody, nogroup", "2, , , root, bin",
                "2, nobody, , nobody, bin", "2, , nogroup, root, nogroup", "3, , , root, root",
                "3, nobody, nogroup, nobody, nogroup", "4, , , root, root", "4, nobody, , nobody, root",
                "6, , , root, root", "6, , nogroup, root, nogroup", "5, , , , ", "5, nobody, , nobody, ",
                "5, , nogroup, , nogroup"})
    void theTypeDecidesWhoOwnsAKey(int type, String user, String group, String owner, String owningGroup) {
        int number = 0;
        for (Creation creation : creations()) {
            String name = top + "k" + number++;
            assertDone(r -> creation.run(name, type, parent, user, group, r));
            assertOwners(owner, owningGroup, name);
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {0, 7, -1, Integer.MAX_VALUE, Integer.MIN_VALUE})
    void anUnknownTypeCreatesNothing(int type) {
        for (Creation creation : creations()) {
            assertCreatesNothing(creation, type, parent, "root", "root");
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {2, 3, 4, 6})
    void someTypesNeedAParent(int type) {
        for (Creation creation : creations()) {
            assertCreatesNothing(creation, type, null, null, null);
        }
    }

    @Test
    void onlyTypeTwoReadsTheParent() {
        Recorder result = new Recorder();
        tkv.createKey(top + "k2", INHERITED, top + "absent", null, null, result);
        assertEquals(4, result.reports().size());
        assertText(4, "absent", result.reports().get(1));
        assertFalse(exists(top + "k2"));
        assertDone(r -> tkv.createKey(top + "k3", AS_SESSION, top + "absent", null, null, r));
    }

    @ParameterizedTest
    @ValueSource(strings = {"null", "empty"})
    void typeOneNeedsAUser(String which) {
        String user = which.equals("null") ? null : "";
        for (Creation creation : creations()) {
            assertCreatesNothing(creation, OWNED_BY, null, user, null);
        }
    }

    @Test
    void namesOfUserAndGroupHave63BytesAtTheMost() {
        String longest = "u".repeat(63);
        assertDone(r -> tkv.createKey(top + "longest", OWNED_BY, null, longest, longest, r));
        assertOwners(longest, longest, top + "longest");
        for (Creation creation : creations()) {
            assertCreatesNothing(creation, OWNED_BY, null, longest + "u", null);
            assertCreatesNothing(creation, OWNED_BY, null, "root", longest + "u");
        }
    }

    @Test
    void aValueSetOnCreationWithTheSessionsGroupGetsItsSecurityAtOnce() {
        assertDone(r -> tkv.createAndSetKeyValue(top + "k", "v", 3, AS_SESSION, "", "nobody", null, r));
        assertOwners("nobody", "root", top + "k");
    }

    // Here, the bridge applies the security to the working key, not to the new key.
    @Test
    void aValueSetOnCreationWithAnotherGroupGivesTheSecurityToTheWorkingKey() {
        assertDone(r -> tkv.openKey(parent, r));
        assertDone(r -> tkv.createAndSetKeyValue("k", "v", 3, OWNED_BY, null, "nobody", "nogroup", r));
        assertOwners("root", "root", parent + ".k");
        assertOwners("nobody", "nogroup", parent);
    }

    @Test
    void ownersOfAnAbsentKeyAreAFailure() {
        assertRefused(4, "absent", r -> assertNull(tkv.getUserName(top + "absent", r)));
        assertRefused(4, "absent", r -> assertNull(tkv.getGroupName(top + "absent", r)));
    }

    @Test
    void aNewRegistrysRootBelongsToWhoMadeIt() {
        assertOwners("root", "root", "");
        Recorder result = new Recorder();
        assertTrue(tkv.keyExists("", result));
        assertEquals(DONE, result.reports());
    }
}
