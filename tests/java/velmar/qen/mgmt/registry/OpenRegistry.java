package velmar.qen.mgmt.registry;

import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.TestInfo;

/** Base of tests that need an open registry. Each test has a top-level key of its own. */
abstract class OpenRegistry {
    Registry registry;
    /** The full name of the test's own key. */
    String top;

    @BeforeEach
    void openRegistry(TestInfo test) {
        registry = Registry.open();
        top = getClass().getSimpleName() + "-" + test.getTestMethod().orElseThrow().getName()
                + Math.floorMod(test.getDisplayName().hashCode(), 100_000);
        registry.create(top);
    }

    @AfterEach
    void closeRegistry() {
        registry.close();
    }

    /** Returns the full name of a key below the test's own. */
    String below(String name) {
        return top + "." + name;
    }
}
