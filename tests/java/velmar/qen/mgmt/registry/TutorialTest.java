package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;

import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import velmar.qen.mgmt.nativesystem.Configuration;

/** The code of the tutorial, run. What stands between the marks is what the documents show. */
class TutorialTest {
    private final ByteArrayOutputStream printed = new ByteArrayOutputStream();
    private final PrintStream console = System.out;

    @BeforeEach
    void catchOutput() {
        System.setOut(new PrintStream(printed, true));
    }

    @AfterEach
    void releaseOutput() {
        System.setOut(console);
    }

    private void assertPrinted(String... lines) {
        assertEquals(List.of(lines), printed.toString().lines().toList());
    }

    @Test
    void firstSteps() {
        // snippet first
        try (Registry registry = Registry.open()) {
            registry.create("app");
            registry.put("app.name", "billing");
            registry.putList("app.nodes", List.of("alpha", "beta"));
            System.out.println(registry.get("app.name"));
            System.out.println(registry.getList("app.nodes"));
            System.out.println(registry.list("app"));
        }
        // end
        assertPrinted("billing", "[alpha, beta]", "[name, nodes]");
        try (Registry registry = Registry.open()) {
            registry.deleteTree("app");
        }
    }

    @Test
    void reading() {
        try (Registry registry = Registry.open()) {
            registry.create("app");
            // snippet reading
            registry.put("app.port", "8080");
            String port = registry.get("app.port");                        // throws when there is no such key
            String host = registry.get("app.host", "localhost");           // or takes a default
            boolean tls = registry.find("app.tls").map("on"::equals).orElse(false);
            // end
            assertEquals("8080", port);
            assertEquals("localhost", host);
            assertFalse(tls);
            // snippet numbers
            registry.putInt("app.retries", 5);
            registry.putLong("app.limit", 10_000_000_000L);
            int retries = registry.getInt("app.retries");
            // end
            assertEquals(5, retries);
            assertEquals(10_000_000_000L, registry.getLong("app.limit"));
            // snippet walk
            registry.walk("app").forEach(name -> System.out.println(name + " = " + registry.get(name)));
            // end
            assertPrinted("app.limit = 10000000000", "app.port = 8080", "app.retries = 5");
            registry.deleteTree("app");
        }
    }

    @Test
    void security() {
        try (Registry registry = Registry.open()) {
            // snippet security
            registry.create("shared", Security.sameAsSession().withGroup("daemon"));
            registry.put("shared.state", "idle", Security.inheritFrom("shared"));
            registry.createWith("shared.lock", "node-1", Security.sameAsSession());    // throws when there is one
            System.out.println(registry.group("shared.state").orElse("none"));
            // end
            assertPrinted("daemon");
            assertEquals("node-1", registry.get("shared.lock"));
            registry.deleteTree("shared");
        }
    }

    @Test
    void trees() {
        try (Registry registry = Registry.open()) {
            registry.create("app");
            registry.put("app.port", "8080");
            registry.create("archive");
            // snippet trees
            registry.copyTree("app", "draft");
            registry.put("draft.port", "9090");
            registry.move("app", "archive.app");
            registry.move("draft", "app");
            registry.deleteTree("archive");
            // end
            assertEquals("9090", registry.get("app.port"));
            assertFalse(registry.exists("archive"));
            assertFalse(registry.exists("draft"));
            registry.deleteTree("app");
        }
    }

    @Test
    void failures() {
        // snippet failures
        try (Registry registry = Registry.open()) {
            registry.put("app.name", "billing");
        } catch (KeyNotFoundException absent) {
            System.out.println("create the parent of " + absent.key() + " first");
        } catch (RegistryException other) {
            System.err.println(other.code() + ": " + other.text());
        }
        // end
        assertPrinted("create the parent of app.name first");
    }

    @Test
    void cluster() {
        try (Registry registry = Registry.open()) {
            // snippet cluster
            Locations locations = registry.locations();
            String kind = locations.shared() ? "shared" : "of this node";
            System.out.println(kind + ", member of a cluster: " + registry.isClusterMember());
            // end
            assertPrinted(Configuration.onCluster() ? "shared, member of a cluster: true"
                                                    : "of this node, member of a cluster: false");
        }
    }
}
