package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;

import java.io.IOException;
import java.time.Duration;
import java.util.List;
import java.util.Optional;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.Test;
import velmar.qen.mgmt.nativesystem.Configuration;

/** Registries and watches that stay open while etcd is killed and started again on the same data. */
class EtcdRestartTest {
    private static final int MEMBERS = Integer.getInteger("tkv.etcd.members");
    private static final Duration LONG = Duration.ofSeconds(240);

    private static void restart(EtcdCluster cluster) throws IOException {
        for (int member = 0; member < MEMBERS; member++) {
            cluster.kill(member);
        }
        cluster.start();
    }

    /** Asserts that an event is that of the first change of a key, or of a later one. */
    private static void assertChanges(String key, KeyChange.Kind kind, RegistryEvent event) {
        RegistryEvent.Changed change = assertInstanceOf(RegistryEvent.Changed.class, event);
        assertEquals(List.of(new KeyChange(kind, key, Optional.empty())), change.changes());
    }

    @Test
    void watchesReportEachChangeOnceAcrossRestarts() throws IOException, InterruptedException {
        try (EtcdCluster cluster = new EtcdCluster(MEMBERS);
             Configuration configuration = new Configuration(cluster.configuration());
             Registry registry = Registry.open()) {
            BlockingQueue<RegistryEvent> heard = new LinkedBlockingQueue<>();
            registry.create("app");
            try (EventReader events = registry.events("app", 1);
                 Watch watch = registry.watch("app", 1, Runnable::run, heard::add)) {
                for (int round = 0; round < 3; round++) {
                    String key = "app.k" + round;
                    registry.put(key, round);
                    restart(cluster);
                    registry.put(key, -round);
                    for (KeyChange.Kind kind : List.of(KeyChange.Kind.CREATED, KeyChange.Kind.VALUE)) {
                        assertChanges(key, kind, events.next(LONG).orElseThrow());
                        assertChanges(key, kind, heard.poll(LONG.toSeconds(), TimeUnit.SECONDS));
                    }
                }
                assertEquals(Optional.empty(), events.next(Duration.ZERO));
                assertEquals(List.of(), List.copyOf(heard));
            }
            assertEquals(List.of("k0", "k1", "k2"), registry.list("app"));
        }
    }

    @Test
    void changesByOthersAfterARestartAreReported() throws IOException {
        try (EtcdCluster cluster = new EtcdCluster(MEMBERS);
             Configuration configuration = new Configuration(cluster.configuration());
             Registry registry = Registry.open()) {
            registry.create("app");
            try (EventReader events = registry.events("app", 1)) {
                restart(cluster);
                try (Registry other = Registry.open()) {
                    other.put("app.k", 1);
                }
                assertChanges("app.k", KeyChange.Kind.CREATED, events.next(LONG).orElseThrow());
                assertEquals(1, registry.getInt("app.k"));
            }
        }
    }
}
