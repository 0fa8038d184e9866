package velmar.qen.mgmt.registry;

import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.TestInfo;

/** For tests on an open registry, with a top-level key of their own. */
abstract class OpenRegistry {
    Registry registry;
    /** Full name of the test's own key. */
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

    /** Full name of a key below the test's own. */
    String below(String name) {
        return top + "." + name;
    }
}
