package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.NavigableMap;
import java.util.Random;
import java.util.TreeMap;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.function.Supplier;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import velmar.qen.mgmt.nativesystem.ChildJvm;

/**
 * Random operations, compared with a model. Four threads in each of two processes work on the same registry, each on a
 * subtree of its own, so that a model of its own knows what every call must return.
 */
class ModelTest {
    private static final int OPERATIONS = Integer.getInteger("tkv.operations", 4_000);
    private static final int THREADS = 4;

    /** A worker's subtree, in the registry and as a map from full names to values. */
    private static final class Worker {
        private final Registry registry;
        private final String top;
        private final Random random;
        private final NavigableMap<String, Value> model = new TreeMap<>();

        Worker(Registry registry, int number) {
            this.registry = registry;
            this.top = "model.w" + number;
            this.random = new Random(number);
            registry.ensure(top);
            model.put(top, new Value.None());
        }

        void run(int operations) {
            for (int i = 0; i < operations; i++) {
                step();
                if (i % 200 == 0) {
                    compare();
                }
            }
            compare();
        }

        private String name() {
            StringBuilder name = new StringBuilder(top);
            for (int levels = random.nextInt(4); levels > 0; levels--) {
                name.append('.').append("abcé".charAt(random.nextInt(4)));
            }
            return name.toString();
        }

        private Value value() {
            return switch (random.nextInt(6)) {
                case 0 -> new Value.Text("text " + random.nextInt());
                case 1 -> new Value.TextList(List.of("a", "b" + random.nextInt(9)));
                case 2 -> new Value.Int32(random.nextInt());
                case 3 -> new Value.Int64(random.nextLong());
                case 4 -> new Value.Bytes(new byte[random.nextInt(3_000)]);
                default -> new Value.Text("");
            };
        }

        private boolean has(String name) {
            return model.containsKey(name);
        }

        private static String parent(String name) {
            return name.substring(0, name.lastIndexOf('.'));
        }

        private static boolean isWithin(String name, String ancestor) {
            return name.equals(ancestor) || name.startsWith(ancestor + ".");
        }

        private List<String> within(String ancestor) {
            return model.keySet().stream().filter(name -> isWithin(name, ancestor)).toList();
        }

        private boolean isBelowTop(String name) {
            return !name.equals(top);
        }

        /** Makes a call that must fail, or succeed, as the model says. Returns whether it has succeeded. */
        private static boolean expect(int code, Runnable call) {
            if (code == 0) {
                call.run();
                return true;
            }
            assertEquals(code, assertThrows(RegistryException.class, call::run).code());
            return false;
        }

        private void step() {
            String name = name();
            switch (random.nextInt(12)) {
                case 0, 1, 2 -> put(name, value());
                case 3 -> create(name);
                case 4 -> ensure(name);
                case 5 -> delete(name);
                case 6 -> compareTransfer(name, name(), false, random.nextBoolean());
                case 7 -> compareTransfer(name, name(), true, random.nextBoolean());
                case 8 -> assertEquals(model.get(name), registry.findValue(name).orElse(null));
                case 9 -> assertEquals(has(name), registry.exists(name));
                case 10 -> list(name);
                default -> put(name, new Value.None());
            }
        }

        private void put(String name, Value value) {
            boolean possible = has(name) || has(parent(name)) || name.equals(top);
            if (expect(possible ? 0 : 4, () -> registry.put(name, value))) {
                model.put(name, value);
            }
        }

        private void create(String name) {
            int code = has(name) ? 55 : has(parent(name)) ? 0 : 4;
            if (expect(code, () -> registry.create(name))) {
                model.put(name, new Value.None());
            }
        }

        private void ensure(String name) {
            registry.ensure(name);
            for (String each = name; isBelowTop(each); each = parent(each)) {
                model.putIfAbsent(each, new Value.None());
            }
        }

        private void delete(String name) {
            if (!isBelowTop(name)) {
                return;
            }
            List<String> gone = within(name);
            if (gone.size() > 1) {
                expect(6, () -> registry.delete(name));
            }
            assertEquals(has(name), registry.deleteTree(name));
            gone.forEach(model::remove);
        }

        private void compareTransfer(String source, String target, boolean copies, boolean replaces) {
            if (!isBelowTop(source) || !isBelowTop(target)) {
                return;
            }
            boolean nested = isWithin(target, source) || replaces && isWithin(source, target);
            if (has(source) && nested) {
                // If the parent of the target is missing as well, either is true.
                int code = assertThrows(RegistryException.class, () -> transfer(source, target, copies, replaces)).code();
                assertTrue(code == 17 || code == 4 && !has(parent(target)), () -> source + " " + target + ": " + code);
                return;
            }
            int code = !has(source) || !has(parent(target)) ? 4 : has(target) && !replaces ? 55 : 0;
            if (expect(code, () -> transfer(source, target, copies, replaces))) {
                within(target).forEach(model::remove);
                for (String each : within(source)) {
                    Value value = copies ? model.get(each) : model.remove(each);
                    model.put(target + each.substring(source.length()), value);
                }
            }
        }

        private void transfer(String source, String target, boolean copies, boolean replaces) {
            if (copies && replaces) {
                registry.copyReplacing(source, target, CopyOwner.SOURCE);
            } else if (copies) {
                registry.copy(source, target);
            } else if (replaces) {
                registry.moveReplacing(source, target);
            } else {
                registry.move(source, target);
            }
        }

        private void list(String name) {
            Supplier<List<String>> levels = () -> registry.list(name);
            if (!has(name)) {
                expect(4, levels::get);
                return;
            }
            assertEquals(within(name).stream().filter(each -> !each.equals(name) && parent(each).equals(name))
                                 .map(each -> each.substring(name.length() + 1)).toList(), levels.get());
        }

        private void compare() {
            Map<String, Value> found = new TreeMap<>();
            try (Stream<Entry> entries = registry.walk(top)) {
                entries.forEach(entry -> found.put(entry.name(), entry.value()));
            }
            found.put(top, registry.value(top));
            assertEquals(model, found);
        }
    }

    /** The other process. */
    static final class Other {
        private Other() {}

        public static void main(String[] arguments) throws InterruptedException, ExecutionException {
            work(THREADS, Integer.parseInt(arguments[0]));
            System.out.println("the same");
        }
    }

    private static void work(int firstNumber, int operations) throws InterruptedException, ExecutionException {
        ExecutorService pool = Executors.newFixedThreadPool(THREADS);
        try (Registry registry = Registry.open()) {
            List<Future<?>> running = new ArrayList<>();
            for (int i = 0; i < THREADS; i++) {
                Worker worker = new Worker(registry, firstNumber + i);
                running.add(pool.submit(() -> worker.run(operations / THREADS / 2)));
            }
            for (Future<?> each : running) {
                each.get();
            }
        } finally {
            pool.shutdownNow();
        }
    }

    @Test
    void theRegistryIsWhatTheModelSays() throws InterruptedException, ExecutionException, IOException {
        Process other = ChildJvm.start(List.of(), Map.of(), Other.class, String.valueOf(OPERATIONS));
        try {
            work(0, OPERATIONS);
            String output = new String(other.getInputStream().readAllBytes());
            assertEquals(0, other.waitFor(), output);
            assertTrue(output.endsWith("the same\n"), output);
        } finally {
            other.destroyForcibly();
        }
        try (Registry registry = Registry.open()) {
            assertEquals(2 * THREADS, registry.list("model").size());
            registry.deleteTree("model");
        }
    }
}
