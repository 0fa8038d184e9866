package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import org.junit.jupiter.api.Test;

class SecurityTest {
    @Test
    void isAValue() {
        assertEquals(Security.ownedBy("u").withGroup("g"), Security.ownedBy("u").withGroup("g"));
        assertEquals(Security.ownedBy("u").hashCode(), Security.ownedBy("u").hashCode());
        assertNotEquals(Security.ownedBy("u"), Security.ownedBy("v"));
        assertNotEquals(Security.sameAsSession("k"), Security.inheritFrom("k"));
        assertNotEquals(Security.sameAsSession("k"), Security.ofType(4, "k"));
    }

    @Test
    void overridesMakeNewValues() {
        Security security = Security.sameAsSession();
        assertNotEquals(security, security.withOwner("u"));
        assertEquals(security, Security.sameAsSession());
    }

    @Test
    void tellsWhatItIs() {
        assertEquals("type 1, owner u, group g", Security.ownedBy("u").withGroup("g").toString());
        assertEquals("type 2, key 'a.b'", Security.inheritFrom("a.b").toString());
    }

    @Test
    void refusesWhatIsNoNameAndNoType() {
        assertThrows(IllegalArgumentException.class, () -> Security.ownedBy(""));
        assertThrows(IllegalArgumentException.class, () -> Security.open().withGroup("g".repeat(64)));
        assertThrows(IllegalArgumentException.class, () -> Security.open().withOwner("a\0b"));
        assertThrows(IllegalArgumentException.class, () -> Security.ofType(1, ""));
        assertThrows(IllegalArgumentException.class, () -> Security.ofType(7, ""));
    }
}
