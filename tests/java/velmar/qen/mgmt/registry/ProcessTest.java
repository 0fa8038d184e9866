package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CountDownLatch;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import velmar.qen.mgmt.nativesystem.ChildJvm;

/** What a process does while calls are running: exit, and start other processes. */
class ProcessTest {
    @TempDir
    private Path directory;

    /** Calls in several threads, and then exits or starts processes in the midst of it. */
    static final class Busy {
        private static final int THREADS = 6;
        private static final int PROCESSES = 30;

        private Busy() {}

        public static void main(String[] arguments) throws IOException, InterruptedException {
            Registry registry = Registry.at(Path.of(arguments[0]));
            registry.ensure("a.b");
            CountDownLatch running = new CountDownLatch(THREADS);
            for (int i = 0; i < THREADS; i++) {
                int number = i;
                Thread thread = new Thread(() -> work(registry, number, Path.of(arguments[0]), running));
                thread.setDaemon(true);
                thread.start();
            }
            running.await();
            for (int i = 0; i < PROCESSES; i++) {
                if (new ProcessBuilder("true").start().waitFor() != 0) {
                    System.exit(1);
                }
            }
            System.out.println("still there: " + registry.exists("a.b"));
            System.exit(7);
        }

        private static void work(Registry registry, int number, Path place, CountDownLatch running) {
            for (int i = 0;; i++) {
                registry.put("a.b.k" + number, i);
                registry.list("a");
                registry.update("a.b.sum", value -> new Value.Int32(number));
                try (Snapshot state = registry.snapshot(); EventReader events = registry.events("a", 2)) {
                    state.list("a");
                    registry.batch().ifExists("a").put("a.b.k" + number, i).commit();
                    events.next(Duration.ofMillis(1));
                }
                registry.watch("a", 2, Runnable::run, event -> { }).close();
                try (Registry another = Registry.at(place)) {
                    another.getInt("a.b.k" + number);
                }
                if (i == 10) {
                    running.countDown();
                }
            }
        }
    }

    /** Returns from main() while a watch, a waiting reader and a snapshot are open. */
    static final class Watching {
        private Watching() {}

        public static void main(String[] arguments) throws InterruptedException {
            Registry registry = Registry.at(Path.of(arguments[0]));
            CountDownLatch told = new CountDownLatch(1);
            registry.watch("", Integer.MAX_VALUE, Runnable::run, event -> told.countDown());
            EventReader events = registry.events("of no concern", 0);
            Thread waiting = new Thread(() -> events.next(Duration.ofDays(1)));
            waiting.setDaemon(true);
            waiting.start();
            Snapshot state = registry.snapshot();
            registry.ensure("a.b");
            told.await();
            System.out.println("still there: " + state.exists("a") + " " + registry.exists("a.b"));
        }
    }

    @Test
    void aWatchDoesNotKeepAProcessFromEnding() throws IOException, InterruptedException {
        ChildJvm.Outcome outcome = ChildJvm.run(List.of(), Map.of(), Watching.class, directory.resolve("r").toString());
        assertEquals("still there: false true\n", outcome.output());
        assertEquals(0, outcome.exit());
    }

    @Test
    void aProcessExitsWhileCallsAreRunning() throws IOException, InterruptedException {
        for (int i = 0; i < 3; i++) {
            ChildJvm.Outcome outcome = ChildJvm.run(List.of(), Map.of(), Busy.class,
                                                    directory.resolve("r" + i).toString());
            assertEquals("still there: true\n", outcome.output());
            assertEquals(7, outcome.exit());
        }
    }
}
