package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assumptions.assumeFalse;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;
import velmar.qen.mgmt.nativesystem.ChildJvm;
import velmar.qen.mgmt.nativesystem.Command;
import velmar.qen.mgmt.nativesystem.Configuration;

/** Keys that are read again and again, from memory where that is possible, beside changes of all kinds. */
class KnownKeysTest extends OpenRegistry {
    /** Reads of a key after which it is known. */
    private static final int UNTIL_KNOWN = 3;
    private static final int UNTIL_COMPILED = 20_000;
    private static final int LONGEST_TICK_MILLIS = 20;
    private static final int THREADS = 4;
    private static final long WEIGHT = 100_000;
    /** Keys that are taken in at once, and more than that. */
    private static final int FEW = 1_000;
    private static final int MANY = 20_000;

    private static boolean numbersStates() {
        return !Configuration.onCluster();
    }

    private String text(String name) {
        String text = null;
        for (int i = 0; i < UNTIL_KNOWN; i++) {
            text = registry.findText(name).orElse(null);
        }
        return text;
    }

    private List<String> list(String name) {
        List<String> names = null;
        for (int i = 0; i < UNTIL_KNOWN; i++) {
            names = registry.list(name);
        }
        return names;
    }

    @Test
    void aKnownKeyIsReadFromMemory() {
        registry.put(below("k"), "v");
        text(below("k"));
        list(top);
        assertEquals(numbersStates(), registry.value(below("k")) == registry.value(below("k")));
        assertEquals(numbersStates(), registry.list(top) == registry.list(top));
    }

    @Test
    void ownChangesAreReadAtOnce() {
        String name = below("k");
        assertNull(text(name));
        assertFalse(registry.exists(name));
        for (int i = 0; i < 200; i++) {
            registry.put(name, "v" + i);
            assertEquals("v" + i, registry.getText(name));
            assertEquals("v" + i, text(name));
            assertTrue(registry.exists(name));
        }
        assertEquals(List.of("k"), list(top));
        registry.create(below("l"));
        assertEquals(List.of("k", "l"), registry.list(top));
        registry.delete(name);
        assertThrows(KeyNotFoundException.class, () -> registry.getText(name));
        assertEquals("none", registry.getText(name, "none"));
        assertFalse(registry.exists(name));
        assertEquals(List.of("l"), registry.list(top));
    }

    @Test
    void changesOfAnotherProcessAreReadAtOnce() throws IOException, InterruptedException {
        String name = below("k");
        assertNull(text(name));
        assertEquals(List.of(), list(top));
        Command.run("set", name, "first");
        assertEquals("first", text(name));
        assertEquals(List.of("k"), list(top));
        Command.run("set", name, "second");
        assertEquals("second", text(name));
        Command.run("mv", name, below("moved"));
        assertNull(text(name));
        assertEquals("second", text(below("moved")));
        assertEquals(List.of("moved"), list(top));
        Command.run("set", name, "third");
        assertEquals("third", text(name));
        Command.run("rm", "-r", "--yes", top);
        assertNull(text(name));
        assertNull(text(below("moved")));
        assertThrows(KeyNotFoundException.class, () -> registry.list(top));
        registry.create(top);
        assertEquals(List.of(), list(top));
        assertNull(text(name));
        registry.put(name, "fourth");
        assertEquals("fourth", text(name));
    }

    /** Writes numbers, and prints each of them once it has been written. */
    static final class Counting {
        private Counting() {}

        public static void main(String[] arguments) {
            try (Registry registry = Registry.open()) {
                for (int i = 1; i <= Integer.parseInt(arguments[1]); i++) {
                    registry.put(arguments[0], i);
                    System.out.println(i);
                }
            }
        }
    }

    @Test
    void whatWasAcknowledgedToAnotherProcessIsReadByEveryThread()
            throws IOException, InterruptedException, ExecutionException {
        String name = below("count");
        int last = 300;
        registry.put(name, 0);
        ExecutorService pool = Executors.newFixedThreadPool(THREADS);
        AtomicBoolean done = new AtomicBoolean();
        List<Future<?>> readers = new ArrayList<>();
        for (int i = 0; i < THREADS; i++) {
            readers.add(pool.submit(() -> readWhileItGrows(name, done)));
        }
        Process writer = ChildJvm.start(List.of(), Map.of(), Counting.class, name, String.valueOf(last));
        try (BufferedReader lines = writer.inputReader()) {
            for (int i = 1; i <= last; i++) {
                int acknowledged = Integer.parseInt(lines.readLine());
                int read = registry.getInt(name);
                assertTrue(read >= acknowledged, () -> read + " after " + acknowledged);
            }
        } finally {
            done.set(true);
            pool.shutdown();
            writer.destroy();
        }
        for (Future<?> reader : readers) {
            reader.get();
        }
        assertEquals(last, registry.getInt(name));
    }

    private void readWhileItGrows(String name, AtomicBoolean done) {
        for (int last = 0; !done.get();) {
            int count = registry.getInt(name);
            assertTrue(count >= last, "a count goes back");
            last = count;
        }
    }

    @Test
    void whatIsKnownOfAKeyIsThatOfThePresentAlone() {
        String name = below("k");
        registry.put(name, "before");
        try (Snapshot before = registry.snapshot()) {
            assertEquals("before", text(name));
            registry.put(name, "after");
            assertEquals("after", text(name));
            assertEquals("before", before.getText(name));
            assertEquals("after", registry.getText(name));
        }
    }

    /** What is known of a key outlasts changes of others, unless they concern the key as well. */
    @Test
    void manyKeysAreReadAgainBesideChangesOfSome() {
        int keys = numbersStates() ? 600 : 30;  // on many pages, or in many requests
        List<String> names = IntStream.range(0, keys).mapToObj(i -> below("a.k" + i)).toList();
        Map<String, String> texts = new HashMap<>();
        Batch batch = registry.batch().createParents();
        for (String name : names) {
            batch.put(name, "first of " + name);
            texts.put(name, "first of " + name);
        }
        batch.commit();
        Random random = new Random(1);
        for (int round = 0; round < 20; round++) {
            changeOne(names.get(random.nextInt(names.size())), round, texts);
            for (String name : names) {
                assertEquals(texts.get(name), registry.getText(name, null), name);
            }
        }
    }

    private void changeOne(String name, int round, Map<String, String> texts) {
        String text = "round " + round + " " + "x".repeat(round * 100);
        switch (round % 5) {
            case 0 -> registry.put(below("elsewhere"), round);
            case 1 -> registry.put(name, text);
            case 2 -> registry.batch().put(name, "former").delete(name).put(name, text).commit();
            case 3 -> registry.batch().put(name, "former").delete(name).commit();
            default -> {
                registry.move(below("a"), below("b"));
                assertFalse(registry.exists(name));
                assertEquals("none", registry.getText(name, "none"));
                registry.move(below("b"), below("a"));
            }
        }
        switch (round % 5) {
            case 1, 2 -> texts.put(name, text);
            case 3 -> texts.remove(name);
            default -> { }
        }
    }

    @Test
    void eachOpeningKnowsForItself() {
        String name = below("k");
        registry.put(name, "v");
        try (Registry other = Registry.open()) {
            assertEquals("v", text(name));
            assertEquals("v", other.getText(name));
            other.put(name, "w");
            assertEquals("w", registry.getText(name));
        }
        assertEquals("w", text(name));
    }

    @Test
    void aRegistryThatIsOpenForReadingSeesChangesAtOnce() {
        String name = below("k");
        try (Registry reader = Registry.open(RegistryOptions.builder().readOnly(true).build())) {
            for (int i = 0; i < 20; i++) {
                registry.put(name, i);
                for (int times = 0; times < UNTIL_KNOWN; times++) {
                    assertEquals(i, reader.getInt(name));
                }
            }
        }
    }

    @Test
    void whatIsHandedOutCannotBeChangedByItsReader() {
        registry.put(below("bytes"), new byte[] {1, 2, 3});
        registry.put(below("list"), List.of("a", "b"));
        for (int i = 0; i < UNTIL_KNOWN; i++) {
            byte[] bytes = registry.getBytes(below("bytes"));
            assertEquals(1, bytes[0]);
            bytes[0] = 9;
            assertThrows(UnsupportedOperationException.class, () -> registry.getList(below("list")).set(0, "c"));
            assertThrows(UnsupportedOperationException.class, () -> registry.list(top).set(0, "c"));
        }
    }

    @Test
    void aKeyIsReadAsAnotherTypeAfterItWasWrittenAsOne() {
        String name = below("k");
        registry.put(name, "text");
        assertEquals("text", text(name));
        assertThrows(WrongTypeException.class, () -> registry.getInt(name));
        registry.put(name, 5);
        assertThrows(WrongTypeException.class, () -> registry.getText(name));
        assertEquals(5, registry.getInt(name));
    }

    @Test
    void closingEndsAllReadingAtOnce() throws InterruptedException, ExecutionException {
        registry.put(below("k"), "v");
        for (int round = 0; round < 10; round++) {
            Registry shared = Registry.open();
            CountDownLatch reading = new CountDownLatch(THREADS);
            ExecutorService pool = Executors.newFixedThreadPool(THREADS);
            List<Future<?>> readers = new ArrayList<>();
            for (int i = 0; i < THREADS; i++) {
                readers.add(pool.submit(() -> readUntilClosed(shared, reading)));
            }
            reading.await();
            shared.close();
            assertThrows(RegistryClosedException.class, () -> shared.getText(below("k")));
            assertThrows(RegistryClosedException.class, () -> shared.list(top));
            assertThrows(RegistryClosedException.class, () -> shared.exists(below("k")));
            pool.shutdown();
            for (Future<?> reader : readers) {
                reader.get();
            }
            System.gc();  // which unmaps what former rounds have read
        }
    }

    private void readUntilClosed(Registry shared, CountDownLatch reading) {
        for (int i = 0;; i++) {
            try {
                assertEquals("v", shared.getText(below("k")));
                assertEquals(List.of("k"), shared.list(top));
            } catch (RegistryClosedException closed) {
                return;
            }
            if (i == UNTIL_KNOWN) {
                reading.countDown();
            }
        }
    }

    // --- Embedded registries ---

    private static long label(Registry registry, String name) {
        return Reply.checked(RegistryNatives.latestValue(registry.registry, name), name).word64();
    }

    @Test
    void aRegistryThatDoesNotNumberItsStatesIsReadEachTime() {
        LatestState latest = LatestState.of(registry.registry, NativeReader.CLEANER);
        assertEquals(numbersStates(), latest != null);
        assertEquals(numbersStates() ? latest.number() : 0, label(registry, top));
    }

    /** As it is while a commit is being made durable, or after a writer has died there. */
    @Test
    void theLabelIsThatOfTheStateThatReadingShows(@TempDir Path directory) throws IOException {
        try (Registry local = Registry.at(directory)) {
            local.put("new", "v");
            local.put("k", "v");
            LatestState latest = LatestState.of(local.registry, NativeReader.CLEANER);
            long state = latest.number();
            for (int i = 0; i < UNTIL_KNOWN; i++) {
                assertEquals(state, label(local, "k"));
                assertEquals(state, label(local, "absent"));
            }
            try (FutureState ahead = new FutureState(directory, state)) {
                assertEquals(state + 1, latest.number());
                for (int i = 0; i < UNTIL_KNOWN; i++) {
                    assertEquals(state, label(local, "k"));
                    assertEquals(state, label(local, "new"), "a key that was not read before");
                    assertEquals(0, label(local, "absent"), "that a key is absent in the next state is not certain");
                    assertEquals("v", local.getText("k"));
                    assertEquals("none", local.getText("absent", "none"));
                }
            }
            assertEquals(state, label(local, "k"));
            assertEquals(state, label(local, "absent"));
            local.put("k", "w");
            assertEquals("w", local.getText("k"));
        }
    }

    /** Raises the number in the meta page of the former state, which nobody reads, until it is closed. */
    private static final class FutureState implements AutoCloseable {
        private static final int PAGE = 4_096;
        private static final int NUMBER_AT = 144;

        private final FileChannel file;
        private final long former;
        private final long state;

        FutureState(Path directory, long state) throws IOException {
            this.file = FileChannel.open(directory.resolve("data.mdb"), StandardOpenOption.READ,
                                         StandardOpenOption.WRITE);
            this.state = state;
            ByteBuffer word = ByteBuffer.allocate(Long.BYTES).order(ByteOrder.nativeOrder());
            file.read(word, place());
            former = word.getLong(0);
            assertEquals(state - 1, former);
            write(state + 1);
        }

        private long place() {
            return (state + 1) % 2 * PAGE + NUMBER_AT;
        }

        private void write(long number) throws IOException {
            file.write(ByteBuffer.allocate(Long.BYTES).order(ByteOrder.nativeOrder()).putLong(0, number), place());
        }

        @Override
        public void close() throws IOException {
            write(former);
            file.close();
        }
    }

    @Test
    void filesThatWereReplacedAreNoLongerReadFromMemoryEither(@TempDir Path directory) throws IOException {
        try (Registry local = Registry.at(directory)) {
            local.put("k", "v");
            for (int i = 0; i < UNTIL_KNOWN; i++) {
                assertEquals("v", local.getText("k"));
            }
            Path copy = Files.copy(directory.resolve("data.mdb"), directory.resolve("copy"));
            Files.move(copy, directory.resolve("data.mdb"), StandardCopyOption.REPLACE_EXISTING);
            assertThrows(RegistryUnusableException.class, () -> local.put("k", "w"));
            assertThrows(RegistryUnusableException.class, () -> local.getText("k"));
        }
        try (Registry local = Registry.at(directory)) {
            assertEquals("v", local.getText("k"));
        }
    }

    @Test
    void aFileThatWasTruncatedIsReportedAsDamaged(@TempDir Path directory) throws IOException {
        try (Registry local = Registry.at(directory)) {
            local.put("k", "v");
            for (int i = 0; i < UNTIL_KNOWN; i++) {
                assertEquals("v", local.getText("k"));
            }
            try (RandomAccessFile data = new RandomAccessFile(directory.resolve("data.mdb").toFile(), "rw")) {
                data.setLength(0);
            }
            // Looks at the size of the file on each call; others look once in a tick of the system's clock.
            assertThrows(RegistryDamagedException.class, () -> local.stat("k"));
            for (int i = 0; i < UNTIL_KNOWN; i++) {
                assertThrows(RegistryDamagedException.class, () -> local.getText("k"));
                assertThrows(RegistryDamagedException.class, () -> local.list(""));
            }
        }
    }

    /** Cuts off everything, and waits for the system's clock to tick: the next call looks at the size. */
    private static void truncate(Path directory) throws IOException {
        try (RandomAccessFile data = new RandomAccessFile(directory.resolve("data.mdb").toFile(), "rw")) {
            data.setLength(0);
        }
        Path clock = Files.createFile(directory.resolve("clock"));
        long before = Files.getLastModifiedTime(clock).toMillis();
        while (Files.getLastModifiedTime(clock).toMillis() - before < LONGEST_TICK_MILLIS) {
            Files.writeString(clock, "tick");
        }
    }

    /** The JVM reports it in interpreted code at once, and in compiled code when that next leaves it. */
    @Test
    void memoryThatCannotBeReadIsReportedToJava(@TempDir Path directory) throws IOException {
        try (Registry local = Registry.at(directory)) {
            local.put("k", "v");
            LatestState latest = LatestState.of(local.registry, NativeReader.CLEANER);
            for (int i = 0; i < UNTIL_COMPILED; i++) {
                assertNotEquals(0, latest.number());
            }
            truncate(directory);
            assertThrows(InternalError.class, () -> readUntilReported(latest));
            assertThrows(RegistryDamagedException.class, () -> local.stat("k"));
            assertEquals(0, latest.number());
        }
    }

    private static void readUntilReported(LatestState latest) {
        for (int i = 0; i < UNTIL_COMPILED; i++) {
            latest.number();
            Thread.yield();  // leaves compiled code
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {UNTIL_KNOWN, UNTIL_COMPILED})
    void aKnownKeyOfATruncatedFileIsReportedAsDamaged(int reads, @TempDir Path directory) throws IOException {
        try (Registry local = Registry.at(directory)) {
            local.put("k", "v");
            for (int i = 0; i < reads; i++) {
                assertEquals("v", local.getText("k"));
                assertTrue(local.exists("k"));
                assertEquals(List.of("k"), local.list(""));
            }
            truncate(directory);
            assertThrows(RegistryDamagedException.class, () -> local.getText("k"));
            assertThrows(RegistryDamagedException.class, () -> local.exists("k"));
            assertThrows(RegistryDamagedException.class, () -> local.list(""));
        }
    }

    // --- The table ---

    private KnownKeys table() {
        assumeFalse(Configuration.onCluster(), "a registry on a cluster does not number its states");
        return new KnownKeys(latest(), WEIGHT);
    }

    private KnownKeys tableOfAnyWeight() {
        assumeFalse(Configuration.onCluster(), "a registry on a cluster does not number its states");
        return new KnownKeys(latest(), Long.MAX_VALUE);
    }

    private LatestState latest() {
        return LatestState.of(registry.registry, NativeReader.CLEANER);
    }

    private static Value value(int number) {
        return new Value.Int32(number);
    }

    /** Returns a table that has an older generation, and thus no room for keys that are read once. */
    private KnownKeys fullTable() {
        KnownKeys keys = table();
        for (int i = 0; keys.weight() < WEIGHT / 2 + 1_000; i++) {
            assertTrue(i < 10_000, "a table is full at some time");
            keys.note("filler" + i, latest().number(), value(i), 8);
            keys.note("filler" + i, latest().number(), value(i), 8);
        }
        return keys;
    }

    @Test
    void aKeyIsTakenInAtOnceAsLongAsNothingHasToMakeRoom() {
        KnownKeys keys = table();
        long state = latest().number();
        for (int i = 0; i < 50; i++) {
            keys.note("k" + i, state, value(i), 8);
            assertEquals(value(i), keys.value("k" + i));
        }
        keys.note("absent", state, KnownKeys.ABSENT, 8);
        assertSame(KnownKeys.ABSENT, keys.value("absent"));
        assertFalse(keys.exists("absent"));
        assertTrue(keys.exists("k0"));
        assertNull(keys.exists("unknown"));
        keys.note("list", state, List.of("a"), 8);
        assertEquals(List.of("a"), keys.subkeys("list"));
    }

    /** Notes keys as a program does that reads each of them once; returns how many of them are known then. */
    private static int readOnce(KnownKeys keys, long state, int count) {
        int known = 0;
        for (int i = 0; i < count; i++) {
            if (keys.value("app.k" + i) == null) {
                keys.note("app.k" + i, state, value(i), 8);
            }
            known += keys.value("app.k" + i) == null ? 0 : 1;
        }
        return known;
    }

    @Test
    void ofManyKeysThatAreReadOnceAfterEachChangeOnlyAFewAreTakenIn() {
        KnownKeys keys = tableOfAnyWeight();
        for (int round = 0; round < 3; round++) {
            int known = readOnce(keys, latest().number(), MANY);
            assertTrue(known >= FEW && known < MANY / 4, () -> known + " of " + MANY + " are known");
            registry.put(below("elsewhere"), round);
        }
    }

    @Test
    void manyKeysAreTakenInOnceTheyAreReadAgain() {
        KnownKeys keys = tableOfAnyWeight();
        for (int round = 0; round < 3; round++) {
            long state = latest().number();
            readOnce(keys, state, MANY);
            int known = readOnce(keys, state, MANY);
            assertTrue(known > MANY * 3 / 4, () -> known + " of " + MANY + " are known");
            readOnce(keys, state, MANY);
            assertEquals(MANY, readOnce(keys, state, MANY));
            registry.put(below("elsewhere"), round);
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {1_030, 2_000, 12_000})
    void eachOfAnyNumberOfKeysIsKnownAtSomeTime(int count) {
        KnownKeys keys = tableOfAnyWeight();
        for (int round = 0; round < 4; round++) {
            for (int reads = 0; reads < 20; reads++) {
                readOnce(keys, latest().number(), count);
            }
            assertEquals(count, readOnce(keys, latest().number(), count));
            registry.put(below("elsewhere"), round);
        }
    }

    @Test
    void whatIsNewOfAKnownKeyIsNotedHoweverManyAreKnown() {
        KnownKeys keys = tableOfAnyWeight();
        long state = latest().number();
        readOnce(keys, state, MANY);
        for (int i = 0; i < FEW; i++) {
            keys.note("app.k" + i, state, List.of("a"), 8);
            assertEquals(List.of("a"), keys.subkeys("app.k" + i));
            assertEquals(value(i), keys.value("app.k" + i));
        }
    }

    @Test
    void aKeyWithoutAValueDiffersFromOneThatDoesNotExist() {
        KnownKeys keys = table();
        long state = latest().number();
        keys.note("k", state, new Value.None(), 8);
        keys.note("absent", state, KnownKeys.ABSENT, 8);
        for (String name : List.of("k", "absent")) {
            keys.note(name, state, List.of(), 8);
            assertEquals(List.of(), keys.subkeys(name));
        }
        assertTrue(keys.exists("k"));
        assertFalse(keys.exists("absent"));
    }

    @Test
    void whatIsKnownOfAFormerStateMakesRoom() {
        KnownKeys keys = fullTable();
        long weight = keys.weight();
        registry.put(below("elsewhere"), 1);
        long state = latest().number();
        keys.note("k", state, value(1), 8);
        assertEquals(value(1), keys.value("k"), "the first key of a state");
        assertTrue(keys.weight() < weight / 10, () -> "a weight of " + keys.weight());
    }

    @Test
    void readingManyKeysOnceDisplacesNothing() {
        KnownKeys keys = fullTable();
        long state = latest().number();
        keys.note("k", state, value(1), 8);
        keys.note("k", state, value(1), 8);
        long weight = keys.weight();
        for (int i = 0; i < 20_000; i++) {
            keys.note("once" + i, state, value(i), 8);
        }
        assertEquals(weight, keys.weight());
        assertEquals(value(1), keys.value("k"));
    }

    @Test
    void aFullTableTakesInAKeyWhenItIsReadForTheSecondTime() {
        KnownKeys keys = fullTable();
        long state = latest().number();
        keys.note("k", state, value(1), 8);
        assertNull(keys.value("k"));
        keys.note("k", state, value(1), 8);
        assertEquals(value(1), keys.value("k"));
        assertNull(keys.subkeys("k"));
        keys.note("k", state, List.of("a"), 8);
        assertEquals(List.of("a"), keys.subkeys("k"));
        assertEquals(value(1), keys.value("k"), "what was known of the same state stays");
        keys.note("absent", state, KnownKeys.ABSENT, 8);
        keys.note("absent", state, KnownKeys.ABSENT, 8);
        assertSame(KnownKeys.ABSENT, keys.value("absent"));
    }

    @Test
    void whatIsKnownCountsOnlyInItsState() {
        KnownKeys keys = table();
        long state = latest().number();
        for (long label : new long[] {0, state - 1, state + 1}) {
            keys.note("k", label, value(1), 8);
            keys.note("k", label, value(1), 8);
            assertNull(keys.value("k"), () -> "labelled " + label + " in state " + state);
        }
        keys.note("k", state, value(2), 8);
        assertEquals(value(2), keys.value("k"));
        registry.put(below("elsewhere"), 1);
        assertNull(keys.value("k"));
        keys.note("k", latest().number(), List.of(), 8);
        assertNull(keys.value("k"), "a value of a former state");
        assertEquals(List.of(), keys.subkeys("k"));
    }

    @Test
    void theWeightStaysWithinItsLimitAndWhatIsReadOftenStays() {
        KnownKeys keys = table();
        long state = latest().number();
        for (int i = 0; i < 20_000; i++) {
            String name = "k" + i;
            keys.note(name, state, value(i), 8);
            keys.note(name, state, value(i), 8);
            assertEquals(value(i), keys.value(name));
            assertTrue(i < 2 || keys.value("k1") != null, () -> "k1 is forgotten after " + name);
            assertTrue(keys.weight() <= WEIGHT + 1_000, () -> "a weight of " + keys.weight());
        }
        assertNull(keys.value("k2"), "a key that was not read again");
        keys.note("large", state, value(1), (int) WEIGHT / 4);
        keys.note("large", state, value(1), (int) WEIGHT / 4);
        assertNull(keys.value("large"));
        assertNotNull(keys.value("k1"));
    }

    @Test
    void eachTextOfAListHasItsWeight() {
        KnownKeys keys = table();
        long state = latest().number();
        List<String> texts = Collections.nCopies(1_000, "t");
        int size = 2 * texts.size();
        for (int i = 0; i < UNTIL_KNOWN; i++) {
            keys.note("value", state, new Value.TextList(texts), size);
            keys.note("subkeys", state, texts, size);
            keys.note("text", state, new Value.Text("t".repeat(size)), size);
        }
        assertNull(keys.value("value"), "a small value of many texts");
        assertNull(keys.subkeys("subkeys"));
        assertNotNull(keys.value("text"));
    }

    @Test
    void manyNamesAreRememberedAsSeen() {
        SeenNames seen = new SeenNames(1 << 17);
        int names = 50_000;
        for (int round = 0; round < 4; round++) {
            for (int i = 0; i < names; i++) {
                seen.wasSeen("app.key" + i);
            }
        }
        int remembered = 0;
        for (int i = 0; i < names; i++) {
            remembered += seen.wasSeen("app.key" + i) ? 1 : 0;
        }
        assertTrue(remembered > names / 2, remembered + " of " + names + " are remembered");
        assertFalse(new SeenNames(1 << 17).wasSeen("app.key0"));
    }
}
