package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.management.ManagementFactory;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/**
 * Copies of the deepest tree that there can be, where little of the stack is left. The JVM is started with -Xss256k: a
 * copy that took more of the stack than the JVM keeps for native code would end it.
 */
class SmallStackTest extends OpenSession {
    private static final int DEEPEST = 64;
    private static final int SMALL_STACK = 256 * 1024;

    private String source;
    private String lowest;
    private int copies;
    private int attempts;

    @BeforeEach
    void growTree() {
        assertTrue(ManagementFactory.getRuntimeMXBean().getInputArguments().contains("-Xss256k"));
        source = top + "s";
        StringBuilder name = new StringBuilder(source);
        create(source);
        for (int level = source.split("\\.").length; level < DEEPEST; level++) {
            name.append(".k");
            create(name.toString());
        }
        put(name.toString(), "deep");
        lowest = name.substring(source.length());
    }

    private void copy() {
        attempts++;
        String target = top + "t" + attempts;
        Recorder result = new Recorder();
        create(target);
        tkv.copyRecurse(source, target, AS_SESSION, result);
        assertTrue(result.reports().stream().allMatch("status true"::equals), () -> result.reports().toString());
        assertEquals("deep", get(target + lowest));
        copies++;
    }

    /** Runs something in another thread, and fails as it does. */
    private static void runIn(long stack, Runnable work) throws InterruptedException {
        AtomicReference<Throwable> failure = new AtomicReference<>();
        Thread thread = new Thread(null, work, "small", stack);
        thread.setUncaughtExceptionHandler((failed, thrown) -> failure.set(thrown));
        thread.start();
        thread.join();
        if (failure.get() != null) {
            throw new AssertionError(failure.get());
        }
    }

    @Test
    void aTreeOf64LevelsIsCopied() throws InterruptedException {
        copy();
        runIn(0, this::copy);
        runIn(SMALL_STACK, this::copy);
        assertEquals(3, copies);
    }

    // Descends until no frame fits. On the way back, tries to copy in every sixteenth frame, until there is enough room.
    private void copyAsDeepAsPossible(int frame) {
        try {
            copyAsDeepAsPossible(frame + 1);
        } catch (StackOverflowError tooDeep) {
            if (frame % 16 != 0) {
                throw tooDeep;
            }
            copy();
        }
    }

    @Test
    void belowAsManyFramesAsFitItIsCopiedOrTheErrorIsThatOfTheStack() throws InterruptedException {
        copy();  // so that all classes are initialized
        for (long stack : new long[] {SMALL_STACK, 4 * SMALL_STACK}) {
            copies = 0;
            runIn(stack, () -> copyAsDeepAsPossible(1));
            assertEquals(1, copies);
        }
        assertTrue(attempts > 3, "the stack was full");
        assertNotNull(get(source + lowest));
    }
}
