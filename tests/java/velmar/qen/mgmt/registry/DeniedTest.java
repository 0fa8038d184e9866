package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import java.util.Optional;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** The user nobody, in the group nogroup, on a registry that root has created. */
class DeniedTest {
    private Registry registry;

    @BeforeEach
    void openRegistry() {
        registry = Registry.open();
    }

    @AfterEach
    void closeRegistry() {
        registry.close();
    }

    private void assertDenied(String key, Executable call) {
        AccessDeniedException denied = assertThrows(AccessDeniedException.class, call);
        assertEquals(2, denied.code());
        assertEquals(key, denied.key());
    }

    @Test
    void whatTheRightsDoNotGrantIsDenied() {
        assertDenied("roots", () -> registry.put("roots", "v"));
        assertDenied("roots", () -> registry.putList("roots", List.of("v")));
        assertDenied("roots.new", () -> registry.create("roots.new"));
        assertDenied("roots.new", () -> registry.put("roots.new", "v"));
        assertDenied("roots.victim", () -> registry.delete("roots.victim"));
        assertDenied("mixed", () -> registry.deleteTree("mixed"));
        assertDenied("roots.victim", () -> registry.move("roots.victim", "open.victim2"));
        assertEquals("value", registry.get("roots"));
        assertEquals(List.of("a", "b", "c"), registry.list("mixed"));
    }

    @Test
    void aTreeIsNotCopiedWhereNothingMayBeCreated() {
        assertDenied("roots.copy", () -> registry.copyTree("open", "roots.copy"));
        assertFalse(registry.exists("roots.copy"));
    }

    @Test
    void aKeyGivenAwayCanBeGivenItsTextWhileTheGroupMayWrite() {
        registry.createWith("nobodys.shared", "text", Security.ownedBy("root").withGroup("nogroup"));
        assertEquals(Optional.of("root"), registry.owner("nobodys.shared"));
    }

    @Test
    void aKeyGivenAwayForGoodStaysWithoutItsTextAndTheFailureSaysSo() {
        AccessDeniedException denied = assertThrows(AccessDeniedException.class,
                () -> registry.createWith("nobodys.given", "text", Security.ownedBy("root")));
        assertInstanceOf(AccessDeniedException.class, denied.getSuppressed()[0]);
        assertEquals("", registry.get("nobodys.given"));
        assertEquals(Optional.of("root"), registry.owner("nobodys.given"));
    }

    @Test
    void aNewKeyMayBeGivenAwayWithItsText() {
        registry.put("nobodys.gift", "text", Security.ownedBy("root"));
        assertEquals("text", registry.get("nobodys.gift"));
        assertEquals(Optional.of("root"), registry.owner("nobodys.gift"));
        assertTrue(registry.exists("nobodys.gift"));
    }
}
