package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.Optional;
import org.junit.jupiter.api.Test;

/** Runs under a user id and a group id that have no names. */
class NamelessUserTest {
    @Test
    void opensTheRegistryAndOwnsItsKeys() {
        try (Registry registry = Registry.open()) {
            registry.put("app", "v", KeySecurity.readableByAll());
            assertEquals("54321", registry.user());
            assertEquals("54321", registry.group());
            assertEquals("v", registry.getText("app"));
            assertEquals(Optional.of("54321"), registry.owner("app"));
            assertEquals(Optional.of("54321"), registry.group("app"));
        }
    }
}
