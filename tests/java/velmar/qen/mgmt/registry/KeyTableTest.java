package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.List;
import java.util.Objects;
import java.util.Random;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Test;

/** The table of known keys by itself. */
class KeyTableTest {
    private static final int KEYS = 50_000;
    private static final int THREADS = 3;

    private final KeyTable table = new KeyTable(1);

    private static String name(int number) {
        return "app.key" + number;
    }

    @Test
    void aKeyIsFoundByAnEqualName() {
        for (int i = 0; i < KEYS; i++) {
            assertNull(table.find(name(i)));
            table.put(name(i), i, 1);
            assertEquals(i, table.find(name(i)));
        }
        for (int i = 0; i < KEYS; i++) {
            assertEquals(i, table.find(name(i)));
        }
        assertNull(table.find(name(KEYS)));
        assertEquals(KEYS, table.weight());
    }

    /** Returns 2 to the power of `length` names. */
    private static List<String> namesOfTheSameHashCode(int length) {
        List<String> names = List.of("");
        for (int i = 0; i < length; i++) {
            names = names.stream().flatMap(name -> List.of(name + "Aa", name + "BB").stream()).toList();
        }
        assertEquals(1, names.stream().map(String::hashCode).distinct().count());
        return names;
    }

    @Test
    void namesOfTheSameHashCodeAreDifferentKeys() {
        List<String> names = namesOfTheSameHashCode(8);
        names.forEach(name -> table.put(name, "of " + name, 1));
        names.forEach(name -> assertEquals("of " + name, table.find(new StringBuilder(name).toString())));
        assertNull(table.find("Aa".repeat(9)));
    }

    @Test
    void tooManyNamesOfTheSameHashCodeAreLeftOut() {
        List<String> names = namesOfTheSameHashCode(12);
        names.forEach(name -> table.put(name, name, 1));
        assertTrue(count(names) > 0);
        List<String> others = IntStream.range(0, KEYS).mapToObj(KeyTableTest::name).toList();
        others.forEach(name -> table.put(name, name, 1));
        assertTrue(count(names) <= 256, () -> count(names) + " found");
        assertTrue(count(others) > KEYS - 256, () -> count(others) + " found");
        assertEquals(count(names) + count(others), table.weight());
    }

    /** Returns how many of these keys are in the table, each of which has its own name as content. */
    private long count(List<String> names) {
        return names.stream().map(name -> {
            Object content = table.find(name);
            assertTrue(content == null || content == name, () -> content + " as the content of " + name);
            return content;
        }).filter(Objects::nonNull).count();
    }

    @Test
    void aKeyKeepsItsPlaceAndItsWeightWhenItsContentIsReplaced() {
        table.put("a", "first", 10);
        for (int i = 0; i < KEYS; i++) {
            table.put(name(i), i, 1);
        }
        table.put("a", "second", 5);
        assertEquals("second", table.find("a"));
        assertEquals(15, table.weightOf("a"));
        assertEquals(1, table.weightOf(name(7)));
        assertEquals(KEYS + 15, table.weight());
    }

    /** Looks up keys in a random order until the last of them is there, or the thread is interrupted. */
    private static void look(KeyTable table, String[] names, int seed) {
        Random random = new Random(seed);
        while (table.find(names[KEYS - 1]) == null && !Thread.currentThread().isInterrupted()) {
            String name = names[random.nextInt(KEYS)];
            Object content = table.find(name);
            assertTrue(content == null || content == name, () -> content + " as the content of " + name);
        }
    }

    @Test
    void readersFindEachKeyWithItsOwnContentWhileOthersAreAdded() throws Exception {
        String[] names = new String[KEYS];
        for (int i = 0; i < KEYS; i++) {
            names[i] = name(i);
        }
        ExecutorService threads = Executors.newFixedThreadPool(THREADS);
        try {
            for (int round = 0; round < 20; round++) {
                KeyTable filled = new KeyTable(round);
                List<Future<?>> readers = new ArrayList<>();
                for (int i = 0; i < THREADS; i++) {
                    int seed = i;
                    readers.add(threads.submit(() -> look(filled, names, seed)));
                }
                for (String name : names) {
                    filled.put(name, name, 1);
                }
                for (Future<?> reader : readers) {
                    reader.get();
                }
            }
        } finally {
            threads.shutdownNow();
        }
    }
}
