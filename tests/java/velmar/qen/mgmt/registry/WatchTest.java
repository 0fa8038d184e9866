package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertDoesNotThrow;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.Callable;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicReference;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.RejectedExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.function.Consumer;
import java.util.stream.IntStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;

class WatchTest extends OpenRegistry {
    private static final Duration LONG = Duration.ofSeconds(240);
    private static final int ALL = Integer.MAX_VALUE;
    private static final int THREADS = 4;

    private final ExecutorService pool = Executors.newFixedThreadPool(2 * THREADS);

    @AfterEach
    void endPool() {
        pool.shutdownNow();
    }

    private static RegistryEvent.Changed change(EventReader events) {
        return assertInstanceOf(RegistryEvent.Changed.class, events.next(LONG).orElseThrow());
    }

    private static List<KeyChange> changes(EventReader events) {
        return change(events).changes();
    }

    private static List<KeyChange> only(KeyChange.Kind kind, String name) {
        return List.of(new KeyChange(kind, name, Optional.empty()));
    }

    /** Asserts that the next event of an integer key is that of a change to it, and returns the key's value then. */
    private int counted(EventReader events, String key) {
        RegistryEvent.Changed change = change(events);
        assertEquals(key, change.changes().get(0).name());
        try (Snapshot then = registry.at(change.revision())) {
            return then.getInt(key);
        }
    }

    // --- Asking for events ---

    @Test
    void eventsTellWhatWasDone() {
        try (EventReader events = registry.events(top, ALL)) {
            registry.create(below("k"));
            assertEquals(only(KeyChange.Kind.CREATED, below("k")), changes(events));
            registry.put(below("k"), "v");
            assertEquals(only(KeyChange.Kind.VALUE, below("k")), changes(events));
            registry.setSecurity(below("k"), KeySecurity.open());
            assertEquals(only(KeyChange.Kind.SECURITY, below("k")), changes(events));
            registry.move(below("k"), below("l"));
            assertEquals(List.of(new KeyChange(KeyChange.Kind.MOVED, below("l"), Optional.of(below("k")))),
                         changes(events));
            registry.delete(below("l"));
            assertEquals(only(KeyChange.Kind.DELETED, below("l")), changes(events));
            assertEquals(Optional.empty(), events.next(Duration.ZERO));
        }
    }

    @Test
    void anEventTellsWhoMadeTheChangeAndWhen() {
        Instant before = Instant.now().truncatedTo(ChronoUnit.MICROS);
        RegistryOptions noted = RegistryOptions.builder().note("a note of the session").build();
        try (EventReader events = registry.events(top, ALL); Registry other = Registry.open(noted)) {
            other.put(below("k"), 1);
            RegistryEvent.Changed change = change(events);
            assertEquals(registry.stat(below("k")).revision(), change.revision());
            assertFalse(change.time().isBefore(before) || change.time().isAfter(Instant.now()));
            assertEquals(registry.user(), change.author());
            assertEquals("java", change.program());
            assertEquals(ProcessHandle.current().pid(), change.process());
            assertFalse(change.host().isEmpty());
            assertEquals("a note of the session", change.note());
            other.batch().put(below("k"), 2).note("a note of the batch").commit();
            assertEquals("a note of the batch", change(events).note());
            other.batch().put(below("k"), 3).commit();
            assertEquals("a note of the session", change(events).note());
            registry.put(below("k"), 4);
            assertEquals("", change(events).note());
        }
    }

    @Test
    void aBatchIsOneEvent() {
        try (EventReader events = registry.events(top, ALL)) {
            registry.batch().put(below("a"), 1).put(below("b"), 2).commit();
            assertEquals(Stream.of("a", "b").flatMap(name -> only(KeyChange.Kind.CREATED, below(name)).stream()).toList(),
                         changes(events));
        }
    }

    @Test
    void onlyWhatIsWatchedIsReported() {
        registry.ensure(below("k.a.b"));
        registry.ensure(below("other"));
        try (EventReader key = registry.events(below("k"), 0); EventReader subkeys = registry.events(below("k"), 1);
             EventReader all = registry.events(below("k"), ALL)) {
            for (String name : List.of("other", "k.a.b", "k.a", "k")) {
                registry.put(below(name), 1);
            }
            assertEquals(only(KeyChange.Kind.VALUE, below("k")), changes(key));
            assertEquals(only(KeyChange.Kind.VALUE, below("k.a")), changes(subkeys));
            assertEquals(only(KeyChange.Kind.VALUE, below("k")), changes(subkeys));
            for (String name : List.of("k.a.b", "k.a", "k")) {
                assertEquals(only(KeyChange.Kind.VALUE, below(name)), changes(all));
            }
            for (EventReader each : List.of(key, subkeys, all)) {
                assertEquals(Optional.empty(), each.next(Duration.ofNanos(1)));
            }
        }
    }

    @Test
    void eventsBeginWhereAReaderHasReadTheState() {
        registry.put(below("k"), 1);
        long revision;
        try (Snapshot state = registry.snapshot()) {
            assertEquals(1, state.getInt(below("k")));
            revision = state.revision();
        }
        registry.put(below("k"), 2);
        registry.put(below("k"), 3);
        try (EventReader events = registry.events(top, ALL, revision)) {
            assertEquals(List.of(2, 3), List.of(counted(events, below("k")), counted(events, below("k"))));
        }
        assertThrows(IllegalArgumentException.class, () -> registry.events(top, ALL, -1));
        assertThrows(IllegalArgumentException.class, () -> registry.events(top, -1));
    }

    @Test
    void aReaderWaitsForChanges() throws InterruptedException, ExecutionException {
        try (EventReader events = registry.events(top, ALL); Registry other = Registry.open()) {
            Future<List<KeyChange>> waiting = pool.submit(() -> changes(events));
            other.put("WatchTest", "of no concern");
            other.create(below("k"));
            assertEquals(only(KeyChange.Kind.CREATED, below("k")), waiting.get());
        }
    }

    @Test
    void anInterruptDoesNotEndTheWaiting() throws InterruptedException, ExecutionException {
        try (EventReader events = registry.events(top, ALL)) {
            CountDownLatch running = new CountDownLatch(1);
            AtomicReference<Thread> reader = new AtomicReference<>();
            Future<Boolean> waiting = pool.submit(() -> {
                reader.set(Thread.currentThread());
                running.countDown();
                assertEquals(only(KeyChange.Kind.CREATED, below("k")), changes(events));
                return Thread.interrupted();
            });
            running.await();
            reader.get().interrupt();
            registry.create(below("k"));
            assertTrue(waiting.get(), "the interrupt is kept");
        }
    }

    @Test
    void manyChangesArriveWhole() {
        String level = "l".repeat(200);
        try (EventReader events = registry.events(top, ALL)) {
            long first = registry.revision();
            for (int i = 0; i < 300; i++) {
                Batch batch = registry.batch();
                for (int j = 0; j < 4; j++) {
                    batch.put(below(level + j), i);
                }
                batch.commit();
            }
            long former = first;
            for (int i = 0; i < 300; i++) {
                RegistryEvent.Changed change = change(events);
                assertTrue(change.revision() > former);
                assertEquals(4, change.changes().size());
                former = change.revision();
            }
            assertEquals(Optional.empty(), events.next(Duration.ZERO));
            assertEquals(registry.revision(), former);
        }
    }

    @Test
    void aReaderThatFallsBehindIsToldOnce(@TempDir Path directory) throws IOException {
        try (Registry forgetful = HistoryOf.with("changes = 5", directory);
             EventReader events = forgetful.events("", ALL)) {
            for (int i = 0; i < 50; i++) {
                forgetful.put("k", i);
            }
            RegistryEvent lost = events.next(LONG).orElseThrow();
            assertEquals(new RegistryEvent.Resync(forgetful.revision()), lost);
            assertEquals(Optional.empty(), events.next(Duration.ZERO));
            forgetful.put("k", 50);
            assertEquals(only(KeyChange.Kind.VALUE, "k"), changes(events));
        }
    }

    @Test
    void aRegistryWithoutHistoryIsReadAnewAfterEachChange(@TempDir Path directory) throws IOException {
        try (Registry forgetful = HistoryOf.with("off = yes", directory); EventReader events = forgetful.events("", ALL)) {
            for (int i = 0; i < 3; i++) {
                forgetful.put("k", i);
                assertEquals(new RegistryEvent.Resync(forgetful.revision()), events.next(LONG).orElseThrow());
            }
        }
    }

    private void assertEndsWaiting(EventReader events, String message, Runnable end)
            throws InterruptedException, ExecutionException {
        List<Future<RegistryClosedException>> waiting = new ArrayList<>();
        CountDownLatch running = new CountDownLatch(THREADS);
        for (int i = 0; i < THREADS; i++) {
            waiting.add(pool.submit(() -> assertThrows(RegistryClosedException.class, () -> {
                running.countDown();
                events.next(Duration.ofDays(100_000));
            })));
        }
        running.await();
        end.run();
        for (Future<RegistryClosedException> each : waiting) {
            assertEquals("TKV-0003: " + message, each.get().text());
        }
        assertThrows(RegistryClosedException.class, () -> events.next(Duration.ZERO));
        events.close();
    }

    @Test
    void closingAReaderEndsItsWaiting() throws InterruptedException, ExecutionException {
        EventReader events = registry.events(top, ALL);
        assertEndsWaiting(events, "the watch is closed", events::close);
        assertTrue(registry.exists(top));
    }

    @Test
    void closingTheRegistryEndsTheWaiting() throws InterruptedException, ExecutionException {
        assertEndsWaiting(registry.events(top, ALL), "the registry is closed", registry::close);
        assertThrows(RegistryClosedException.class, () -> registry.events(top, ALL));
        assertThrows(RegistryClosedException.class, () -> registry.watch(top, ALL, Runnable::run, event -> { }));
    }

    @Test
    void argumentsAreChecked() {
        Consumer<RegistryEvent> nothing = event -> { };
        try (EventReader events = registry.events(top, ALL)) {
            for (Executable call : List.<Executable>of(
                    () -> events.next(null), () -> registry.events(null, ALL), () -> registry.events(null, ALL, 0),
                    () -> registry.watch(null, ALL, Runnable::run, nothing),
                    () -> registry.watch(top, ALL, null, nothing),
                    () -> registry.watch(top, ALL, Runnable::run, null),
                    () -> registry.watch(top, ALL, 0, null, nothing))) {
                assertThrows(NullPointerException.class, call);
            }
        }
        assertThrows(InvalidNameException.class, () -> registry.events("a..b", ALL));
        assertThrows(InvalidNameException.class, () -> registry.watch("a..b", ALL, Runnable::run, nothing));
    }

    @Test
    void programsCanCreateEventsForTheirOwnTests() {
        List<KeyChange> changes = new ArrayList<>(only(KeyChange.Kind.VALUE, "k"));
        changes.add(new KeyChange(KeyChange.Kind.MOVED, "new", Optional.of("old")));
        RegistryEvent.Changed change =
                new RegistryEvent.Changed(7, Instant.EPOCH, "user", "host", "program", 8, "note", changes);
        changes.clear();
        assertEquals(Optional.of("old"), change.changes().get(1).formerName());
        assertThrows(UnsupportedOperationException.class, change.changes()::clear);
        RegistryException gone = new RegistryUnusableException(null, "gone");
        assertEquals(gone, new RegistryEvent.Failed(7, gone).failure());
        assertThrows(NullPointerException.class, () -> new RegistryEvent.Failed(7, null));
        assertThrows(NullPointerException.class, () -> new KeyChange(null, "k", Optional.empty()));
    }

    // --- Being told of events ---

    private static RegistryEvent taken(BlockingQueue<RegistryEvent> told) throws InterruptedException {
        RegistryEvent event = told.poll(LONG.toSeconds(), TimeUnit.SECONDS);
        assertTrue(event != null, "an event in time");
        return event;
    }

    @Test
    void aListenerIsToldInOrderWhateverTheExecutor() throws InterruptedException {
        BlockingQueue<RegistryEvent> told = new LinkedBlockingQueue<>();
        List<Long> revisions = new ArrayList<>();
        try (Watch watch = registry.watch(top, ALL, pool, told::add)) {
            for (int i = 0; i < 100; i++) {
                revisions.add(registry.batch().put(below("k"), i).commit());
            }
            for (long revision : revisions) {
                assertEquals(revision, taken(told).revision());
            }
            watch.close();
            watch.close();
        }
        registry.put(below("k"), "unheard");
        assertNull(told.poll());
    }

    @Test
    void aListenerBeginsAtARevision() throws InterruptedException {
        long before = registry.revision();
        long revision = registry.batch().put(below("k"), 1).commit();
        BlockingQueue<RegistryEvent> told = new LinkedBlockingQueue<>();
        try (Watch watch = registry.watch(top, ALL, before, Runnable::run, told::add)) {
            assertEquals(revision, taken(told).revision());
        }
    }

    @Test
    void aListenerMayCloseItsWatchAndCallTheRegistry() throws InterruptedException, ExecutionException {
        CompletableFuture<Watch> watch = new CompletableFuture<>();
        CompletableFuture<Integer> read = new CompletableFuture<>();
        watch.complete(registry.watch(top, ALL, Runnable::run, event -> {
            watch.join().close();
            registry.put(below("answer"), 1);
            read.complete(registry.getInt(below("k")));
        }));
        registry.put(below("k"), 7);
        assertEquals(7, read.get());
        registry.put(below("k"), 8);
        assertEquals(7, read.get(), "once only");
    }

    @Test
    void anotherThreadClosesAWatchWithoutWaitingForItsListener() throws InterruptedException, ExecutionException {
        BlockingQueue<RegistryEvent> told = new LinkedBlockingQueue<>();
        CountDownLatch goOn = new CountDownLatch(1);
        ExecutorService one = Executors.newSingleThreadExecutor();
        Watch watch = registry.watch(top, ALL, one, event -> {
            told.add(event);
            assertDoesNotThrow(() -> goOn.await(LONG.toSeconds(), TimeUnit.SECONDS));
        });
        long first = registry.batch().put(below("k"), 1).commit();
        assertEquals(first, taken(told).revision());
        registry.put(below("k"), 2);
        pool.submit(watch::close).get();
        assertEquals(1, goOn.getCount(), "the listener is still running");
        goOn.countDown();
        one.shutdown();
        assertTrue(one.awaitTermination(LONG.toSeconds(), TimeUnit.SECONDS));
        assertNull(told.poll(), "no event after the closing");
    }

    @Test
    void aListenerThatFailsIsToldOfTheNextEvent() throws InterruptedException {
        BlockingQueue<RegistryEvent> told = new LinkedBlockingQueue<>();
        try (Watch watch = registry.watch(top, ALL, pool, event -> {
            told.add(event);
            throw new IllegalStateException("the listener's own");
        })) {
            long first = registry.batch().put(below("k"), 1).commit();
            long second = registry.batch().put(below("k"), 2).commit();
            assertEquals(List.of(first, second), List.of(taken(told).revision(), taken(told).revision()));
        }
    }

    @Test
    void anExecutorThatRefusesEndsTheWatch() throws InterruptedException {
        CountDownLatch refused = new CountDownLatch(1);
        BlockingQueue<RegistryEvent> told = new LinkedBlockingQueue<>();
        try (Watch watch = registry.watch(top, ALL, task -> {
            refused.countDown();
            throw new RejectedExecutionException("full");
        }, told::add)) {
            registry.put(below("k"), 1);
            assertTrue(refused.await(LONG.toSeconds(), TimeUnit.SECONDS));
            registry.put(below("k"), 2);
        }
        assertNull(told.poll());
    }

    @Test
    void anExecutorThatDropsTasksDoesNotKeepAWatchFromClosing() throws InterruptedException {
        CountDownLatch dropped = new CountDownLatch(1);
        Watch watch = registry.watch(top, ALL, task -> dropped.countDown(), event -> { });
        registry.put(below("k"), 1);
        assertTrue(dropped.await(LONG.toSeconds(), TimeUnit.SECONDS));
        watch.close();
        registry.close();
    }

    @Test
    void aRegistryThatIsGoneIsTheLastEvent(@TempDir Path directory) throws IOException, InterruptedException {
        Path place = directory.resolve("registry");
        BlockingQueue<RegistryEvent> told = new LinkedBlockingQueue<>();
        try (Registry doomed = Registry.at(place); Watch watch = doomed.watch("", ALL, pool, told::add)) {
            long revision = doomed.batch().put("k", 1).commit();
            assertEquals(revision, taken(told).revision());
            Files.delete(place.resolve("data.mdb"));
            RegistryEvent.Failed failed = assertInstanceOf(RegistryEvent.Failed.class, taken(told));
            assertEquals(revision, failed.revision());
            assertEquals(18, failed.failure().code());
        }
    }

    @Test
    void everyWatcherIsToldOfEveryChangeOfEveryWriter() throws InterruptedException, ExecutionException {
        int rounds = 40;
        long before = registry.revision();
        List<Callable<List<Long>>> work = new ArrayList<>();
        for (int thread = 0; thread < THREADS; thread++) {
            int number = thread;
            work.add(() -> {
                List<Long> written = new ArrayList<>();
                try (Registry own = Registry.open()) {
                    for (int i = 0; i < rounds; i++) {
                        written.add(own.batch().put(below("k" + number), i).commit());
                    }
                }
                return written;
            });
            work.add(() -> {
                try (Registry own = Registry.open(); EventReader events = own.events(top, ALL, before)) {
                    return IntStream.range(0, THREADS * rounds).mapToObj(i -> change(events).revision()).toList();
                }
            });
        }
        List<Long> written = new ArrayList<>();
        List<List<Long>> seen = new ArrayList<>();
        List<Future<List<Long>>> done = pool.invokeAll(work);
        for (int i = 0; i < done.size(); i++) {
            if (i % 2 == 0) {
                written.addAll(done.get(i).get());
            } else {
                seen.add(done.get(i).get());
            }
        }
        for (List<Long> each : seen) {
            assertEquals(written.stream().sorted().toList(), each);
        }
    }
}
