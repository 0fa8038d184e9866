package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Duration;
import java.util.EnumSet;
import java.util.List;
import java.util.Optional;
import java.util.Set;
import java.util.prefs.BackingStoreException;
import java.util.prefs.Preferences;
import java.util.stream.Stream;
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
        MissingRightException denied = assertThrows(MissingRightException.class, call);
        assertEquals(2, denied.code());
        assertEquals(key, denied.key());
    }

    @Test
    void whatTheRightsDoNotGrantIsDenied() {
        assertDenied("roots", () -> registry.put("roots", "v"));
        assertDenied("roots", () -> registry.put("roots", List.of("v")));
        assertDenied("roots.new", () -> registry.create("roots.new"));
        assertDenied("roots.new", () -> registry.put("roots.new", "v"));
        assertDenied("roots.victim", () -> registry.delete("roots.victim"));
        assertDenied("mixed", () -> registry.deleteTree("mixed"));
        assertDenied("roots.victim", () -> registry.move("roots.victim", "open.victim2"));
        assertEquals("value", registry.getText("roots"));
        assertEquals(List.of("a", "b", "c"), registry.list("mixed"));
    }

    @Test
    void aTreeIsNotCopiedWhereNothingMayBeCreated() {
        assertThrows(MissingRightException.class, () -> registry.copy("open", "roots.copy"));
        assertFalse(registry.exists("roots.copy"));
    }

    @Test
    void whatMayNotBeReadIsKnownToExist() {
        registry.put("nobodys.private", "secret", KeySecurity.privateToUser());
        registry.setSecurity("nobodys.private", KeySecurity.inherited().withOwnerRights(Set.of(Right.SECURITY)));
        assertTrue(registry.exists("nobodys.private"));
        assertEquals(Set.of(Right.SECURITY), registry.rights("nobodys.private"));
        assertDenied("nobodys.private", () -> registry.getText("nobodys.private"));
        assertDenied("nobodys.private", () -> registry.getText("nobodys.private", "default"));
        assertDenied("nobodys.private", () -> registry.findText("nobodys.private"));
        assertDenied("nobodys.private", () -> registry.stat("nobodys.private"));
        assertDenied("nobodys.private", () -> registry.security("nobodys.private"));
        assertDenied("nobodys.private", () -> registry.list("nobodys.private"));
        try (Stream<Entry> entries = registry.entries("nobodys")) {
            Entry entry = entries.filter(each -> each.level().equals("private")).findFirst().orElseThrow();
            assertEquals(Optional.empty(), entry.findValue());
            assertDenied("nobodys.private", entry::value);
            assertDenied("nobodys.private", entry::security);
            assertEquals(Set.of(Right.SECURITY), entry.rights());
        }
        registry.setSecurity("nobodys.private", KeySecurity.privateToUser());
        assertEquals("secret", registry.getText("nobodys.private"));
    }

    @Test
    void aConditionOnAValueNeedsTheRightToReadIt() {
        registry.put("nobodys.secret", "secret", KeySecurity.privateToUser());
        long revision = registry.stat("nobodys.secret").revision();
        registry.setSecurity("nobodys.secret",
                             KeySecurity.inherited().withOwnerRights(EnumSet.of(Right.WRITE, Right.SECURITY)));
        assertDenied("nobodys.secret",
                     () -> registry.batch().ifValue("nobodys.secret", new Value.Text("secret")).commit());
        assertDenied("nobodys.secret", () -> registry.batch().ifRevision("nobodys.secret", revision).commit());
        assertDenied("nobodys.secret", () -> registry.update("nobodys.secret", value -> new Value.Text("new")));
        registry.batch().ifExists("nobodys.secret").ifAbsent("nobodys.none").put("nobodys.secret", "new").commit();
        registry.setSecurity("nobodys.secret", KeySecurity.privateToUser());
        assertEquals("new", registry.getText("nobodys.secret"));
    }

    @Test
    void rightsAddUp() {
        registry.put("nobodys.added", "text", KeySecurity.inherited().withOwnerRights(Set.of(Right.SECURITY))
                .withGroup(registry.group()).withGroupRights(Set.of(Right.WRITE))
                .withOtherRights(Set.of(Right.READ, Right.LIST)));
        assertEquals(EnumSet.of(Right.READ, Right.LIST, Right.WRITE, Right.SECURITY), registry.rights("nobodys.added"));
        assertEquals("text", registry.getText("nobodys.added"));
        registry.put("nobodys.added", "new");
    }

    @Test
    void onlyWhoMayReadAParentInheritsFromIt() {
        registry.create("nobodys.parent", KeySecurity.privateToUser());
        registry.setSecurity("nobodys.parent", KeySecurity.inherited()
                .withOwnerRights(EnumSet.of(Right.CREATE, Right.LIST, Right.SECURITY)));
        assertThrows(MissingRightException.class, () -> registry.put("nobodys.parent.k", "v"));
        assertThrows(MissingRightException.class, () -> registry.create("nobodys.parent.k"));
        assertEquals(List.of(), registry.list("nobodys.parent"));
        registry.put("nobodys.parent.k", "v", KeySecurity.privateToUser());
        assertEquals("v", registry.getText("nobodys.parent.k"));
    }

    @Test
    void aWalkFailsWhereSubkeysMayNotBeListed() {
        registry.ensure("nobodys.hidden.below");
        registry.setSecurity("nobodys.hidden", KeySecurity.inherited().withOwnerRights(Set.of(Right.SECURITY))
                .withGroupRights(Set.of()).withOtherRights(Set.of()));
        assertThrows(MissingRightException.class, () -> registry.walk("nobodys"));
        try (Stream<Entry> entries = registry.entries("nobodys")) {
            assertTrue(entries.anyMatch(entry -> entry.name().equals("nobodys.hidden")));
        }
        registry.setSecurity("nobodys.hidden", KeySecurity.privateToUser());
    }

    @Test
    void aFormerStateNeedsTheRightsOfThenAndOfToday() {
        registry.put("nobodys.past", "former", KeySecurity.privateToUser());
        Set<Right> allButRead = EnumSet.complementOf(EnumSet.of(Right.READ));
        try (Snapshot readable = registry.snapshot()) {
            assertEquals("former", readable.getText("nobodys.past"));
            registry.setSecurity("nobodys.past", KeySecurity.inherited().withOwnerRights(allButRead));
            assertDenied("nobodys.past", () -> readable.getText("nobodys.past"));
            assertTrue(readable.exists("nobodys.past"));
            try (Snapshot hidden = registry.snapshot()) {
                registry.setSecurity("nobodys.past", KeySecurity.privateToUser());
                assertEquals("former", readable.getText("nobodys.past"));
                assertDenied("nobodys.past", () -> hidden.getText("nobodys.past"));
            }
        }
    }

    @Test
    void eventsTellOnlyWhatMayBeKnown() {
        try (EventReader events = registry.events("", Integer.MAX_VALUE)) {
            registry.create("nobodys.watched", KeySecurity.privateToUser());
            registry.setSecurity("nobodys.watched",
                                 KeySecurity.inherited().withOwnerRights(EnumSet.of(Right.WRITE, Right.SECURITY)));
            registry.put("nobodys.watched", "unreadable");
            registry.put("nobodys.seen", "readable");
            List<KeyChange> told = Stream.generate(() -> events.next(Duration.ZERO)).takeWhile(Optional::isPresent)
                    .flatMap(event -> ((RegistryEvent.Changed) event.get()).changes().stream()).toList();
            assertEquals(List.of("nobodys.watched", "nobodys.seen"), told.stream().map(KeyChange::name).toList());
            assertEquals(Set.of(KeyChange.Kind.CREATED), Set.copyOf(told.stream().map(KeyChange::kind).toList()));
        }
    }

    @Test
    void whatIsNotOnesOwnKeepsItsSecurity() {
        assertDenied("roots", () -> registry.setSecurity("roots", KeySecurity.open()));
        assertThrows(MissingRightException.class, () -> registry.setSecurityTree("mixed", KeySecurity.open()));
        assertEquals(Optional.of("root"), registry.owner("roots"));
    }

    @Test
    void aNewKeyMayBeGivenAwayWithItsText() {
        registry.createWith("nobodys.given", "text", KeySecurity.readableByAll().withOwner("root").withGroup("root"));
        assertEquals("text", registry.getText("nobodys.given"));
        assertEquals(Optional.of("root"), registry.owner("nobodys.given"));
        assertDenied("nobodys.given", () -> registry.put("nobodys.given", "new"));
        registry.put("nobodys.gift", "text", KeySecurity.readableByAll().withOwner("root"));
        assertEquals(Optional.of("root"), registry.owner("nobodys.gift"));
    }

    @Test
    void whatIsKnownIsDeniedOnceTheRightToReadItIsGone() {
        registry.put("nobodys.known", "secret", KeySecurity.privateToUser());
        registry.create("nobodys.known.k");
        try (Registry other = Registry.open()) {
            for (int round = 0; round < 3; round++) {
                for (int times = 0; times < 3; times++) {
                    assertEquals("secret", registry.getText("nobodys.known"));
                    assertEquals(List.of("k"), registry.list("nobodys.known"));
                }
                other.setSecurity("nobodys.known", KeySecurity.inherited().withOwnerRights(Set.of(Right.SECURITY)));
                assertDenied("nobodys.known", () -> registry.getText("nobodys.known"));
                assertDenied("nobodys.known", () -> registry.list("nobodys.known"));
                assertTrue(registry.exists("nobodys.known"));
                other.setSecurity("nobodys.known", KeySecurity.privateToUser());
            }
        }
        assertEquals("secret", registry.getText("nobodys.known"));
    }

    @Test
    void preferencesOfTheSystemAreReadWhereTheyMayNotBeWritten() throws BackingStoreException {
        Preferences system = new RegistryPreferences(PreferencesTree.ofSystem(Registry::open));
        Preferences app = system.node("app");
        assertEquals("root's", app.get("k", null));
        app.flush();
        app.put("k", "nobody's");
        assertEquals("nobody's", app.get("k", null));
        String message = assertThrows(BackingStoreException.class, app::flush).getMessage();
        assertTrue(message.startsWith("TKV-0002: ") && message.contains("preferences.system.app"), message);
        assertThrows(BackingStoreException.class, app::removeNode);
        assertEquals("root's", registry.getText("preferences.system.app.@k"));
        assertEquals("default", system.node("absent").get("k", "default"));
    }

    @Test
    void preferencesOfTheUserAreInTheTreeThatAnOperatorHasCreated() throws BackingStoreException {
        Preferences node = new RegistryPreferences(PreferencesTree.ofUser(Registry::open)).node("app");
        node.put("k", "v");
        node.flush();
        KeySecurity security = registry.security("preferences.users.nobody.app.@k");
        assertEquals(Optional.of("nobody"), security.owner());
        assertEquals(Set.of(), security.groupRights());
        assertEquals(Set.of(), security.otherRights());
    }
}
