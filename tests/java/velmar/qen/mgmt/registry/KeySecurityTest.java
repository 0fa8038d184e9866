package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.EnumSet;
import java.util.List;
import java.util.Optional;
import java.util.Set;
import org.junit.jupiter.api.Test;

class KeySecurityTest extends OpenRegistry {
    private static final EnumSet<Right> ALL = EnumSet.allOf(Right.class);
    private static final EnumSet<Right> NONE = EnumSet.noneOf(Right.class);
    private static final EnumSet<Right> READ_AND_LIST = EnumSet.of(Right.READ, Right.LIST);

    private KeySecurity created(KeySecurity security) {
        registry.create(below("k"), security);
        KeySecurity found = registry.security(below("k"));
        assertTrue(found.isComplete());
        return found;
    }

    private void assertRights(KeySecurity found, Set<Right> owner, Set<Right> group, Set<Right> others) {
        assertEquals(List.of(owner, group, others),
                     List.of(found.ownerRights(), found.groupRights(), found.otherRights()));
    }

    @Test
    void isAValue() {
        KeySecurity security = KeySecurity.inherited().withOwner("u").withGroup("g");
        assertEquals(security, KeySecurity.inherited().withGroup("g").withOwner("u"));
        assertEquals(security.hashCode(), KeySecurity.inherited().withGroup("g").withOwner("u").hashCode());
        assertNotEquals(security, security.withOwner("v"));
        assertNotEquals(KeySecurity.privateToUser(), KeySecurity.privateToGroup());
        assertNotEquals(KeySecurity.inherited().withOtherRights(NONE), KeySecurity.inherited());
    }

    @Test
    void setsAreCopiedInAndOut() {
        EnumSet<Right> rights = EnumSet.of(Right.READ);
        KeySecurity security = KeySecurity.inherited().withOwnerRights(rights).withGroupRights(rights)
                .withOtherRights(rights);
        rights.add(Right.WRITE);
        security.ownerRights().add(Right.DELETE);
        security.groupRights().add(Right.DELETE);
        security.otherRights().add(Right.DELETE);
        assertRights(security, Set.of(Right.READ), Set.of(Right.READ), Set.of(Right.READ));
        KeySecurity.open().otherRights().clear();
        assertEquals(ALL, KeySecurity.open().otherRights());
    }

    @Test
    void tellsWhatItIs() {
        assertEquals("inherited", KeySecurity.inherited().toString());
        assertEquals("owner u, others' rights [READ]",
                     KeySecurity.inherited().withOwner("u").withOtherRights(Set.of(Right.READ)).toString());
        assertTrue(KeySecurity.open().toString().startsWith("owner nobody, group none, "));
    }

    @Test
    void whatIsLeftOpenCannotBeAskedFor() {
        KeySecurity inherited = KeySecurity.inherited();
        assertFalse(inherited.isComplete());
        assertThrows(IllegalStateException.class, inherited::owner);
        assertThrows(IllegalStateException.class, inherited::group);
        assertThrows(IllegalStateException.class, inherited::ownerRights);
        assertThrows(IllegalStateException.class, inherited::groupRights);
        assertThrows(IllegalStateException.class, inherited::otherRights);
    }

    @Test
    void refusesWhatIsNoName() {
        assertThrows(IllegalArgumentException.class, () -> KeySecurity.open().withGroup("g".repeat(64)));
        assertThrows(IllegalArgumentException.class, () -> KeySecurity.open().withGroup("日".repeat(22)));
        assertThrows(IllegalArgumentException.class, () -> KeySecurity.open().withOwner("a\0b"));
        assertThrows(NullPointerException.class, () -> KeySecurity.open().withOwner(null));
        assertThrows(NullPointerException.class, () -> KeySecurity.open().withOtherRights(null));
    }

    @Test
    void namesOfUsersAndGroupsHaveUpTo63Bytes() {
        for (String name : List.of("g".repeat(63), "日".repeat(21), "54321")) {
            KeySecurity found = created(KeySecurity.readableByAll().withOwner(name).withGroup(name));
            assertEquals(Optional.of(name), found.owner());
            assertEquals(Optional.of(name), found.group());
            registry.deleteTree(below("k"));
        }
    }

    @Test
    void anEmptyNameIsThatOfNobody() {
        KeySecurity found = created(KeySecurity.privateToUser().withOwner("").withGroup(""));
        assertEquals(Optional.empty(), found.owner());
        assertEquals(Optional.empty(), found.group());
        assertRights(found, ALL, NONE, NONE);
    }

    @Test
    void byDefaultAKeyIsAsOpenAsItsParent() {
        registry.create(below("private"), KeySecurity.privateToUser());
        registry.put(below("private.k"), "v");
        registry.ensure(below("private.a.b"));
        for (String name : List.of("private.k", "private.a", "private.a.b")) {
            assertRights(registry.security(below(name)), ALL, NONE, NONE);
        }
        registry.create(below("public"), KeySecurity.readableByAll());
        registry.put(below("public.k"), "v");
        assertRights(registry.security(below("public.k")), ALL, ALL, READ_AND_LIST);
    }

    @Test
    void othersNeverInheritAllRights() {
        registry.create(below("open"), KeySecurity.open());
        registry.create(below("open.k"));
        assertRights(registry.security(below("open.k")), ALL, ALL, READ_AND_LIST);
        assertEquals(Optional.of(registry.user()), registry.owner(below("open.k")));
    }

    @Test
    void presetsAreWhatTheySay() {
        assertRights(created(KeySecurity.privateToUser()), ALL, NONE, NONE);
        assertEquals(Optional.of(registry.user()), registry.owner(below("k")));
        assertEquals(Optional.of(registry.group()), registry.group(below("k")));
        registry.delete(below("k"));
        assertRights(created(KeySecurity.privateToGroup()), ALL, ALL, NONE);
        registry.delete(below("k"));
        assertRights(created(KeySecurity.readableByAll()), ALL, ALL, READ_AND_LIST);
        registry.delete(below("k"));
        assertRights(created(KeySecurity.open()), ALL, ALL, ALL);
        assertEquals(Optional.empty(), registry.owner(below("k")));
        assertEquals(Optional.empty(), registry.group(below("k")));
    }

    @Test
    void singlePartsCanBeSpecified() {
        KeySecurity found = created(KeySecurity.privateToUser().withGroup("daemon").withGroupRights(READ_AND_LIST)
                .withOtherRights(Set.of(Right.LIST)));
        assertRights(found, ALL, READ_AND_LIST, Set.of(Right.LIST));
        assertEquals(Optional.of("daemon"), found.group());
        assertEquals(Optional.of(registry.user()), found.owner());
    }

    @Test
    void whatIsReadCanBeWritten() {
        KeySecurity found = created(KeySecurity.privateToUser().withGroup("daemon"));
        registry.create(below("same"), found);
        assertEquals(found, registry.security(below("same")));
    }

    @Test
    void setSecurityChangesWhatIsSpecified() {
        registry.create(below("k"), KeySecurity.readableByAll());
        registry.create(below("k.sub"), KeySecurity.readableByAll());
        registry.setSecurity(below("k"), KeySecurity.inherited().withOtherRights(NONE));
        assertRights(registry.security(below("k")), ALL, ALL, NONE);
        assertRights(registry.security(below("k.sub")), ALL, ALL, READ_AND_LIST);
        registry.setSecurity(below("k"), KeySecurity.inherited().withGroup("daemon"));
        assertEquals(Optional.of("daemon"), registry.group(below("k")));
        assertRights(registry.security(below("k")), ALL, ALL, NONE);
        registry.setSecurity(below("k"), KeySecurity.inherited());
        assertRights(registry.security(below("k")), ALL, ALL, NONE);
    }

    @Test
    void setSecurityTreeChangesTheWholeSubtree() {
        registry.ensure(below("k.a.b"), KeySecurity.readableByAll());
        registry.ensure(below("beside"), KeySecurity.readableByAll());
        registry.setSecurityTree(below("k"), KeySecurity.privateToUser());
        for (String name : List.of("k", "k.a", "k.a.b")) {
            assertRights(registry.security(below(name)), ALL, NONE, NONE);
        }
        assertRights(registry.security(below("beside")), ALL, ALL, READ_AND_LIST);
    }

    @Test
    void rightsAreThoseOfTheSession() {
        registry.create(below("k"), KeySecurity.privateToUser());
        assertEquals(ALL, registry.rights(below("k")));
        assertEquals(ALL, registry.rights(""));
        assertThrows(KeyNotFoundException.class, () -> registry.rights(below("absent")));
    }
}
