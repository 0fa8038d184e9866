package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static velmar.qen.mgmt.nativesystem.Reports.assertCode;
import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.assertText;
import static velmar.qen.mgmt.nativesystem.Reports.done;

import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

class ClusterTest extends OpenSession {
    private final String configured = Configuration.current();
    private final Configuration configuration = new Configuration();

    @AfterEach
    void restoreConfiguration() {
        configuration.close();
    }

    private Recorder isCluster() {
        Recorder result = new Recorder();
        tkv.isCluster(result);
        return result;
    }

    @Test
    void aNodeIsNoMemberUnlessConfiguredOrOnAClustersRegistry() {
        assertEquals(List.of("status true", "answer " + Configuration.onCluster()), isCluster().reports());
        configuration.write(configured + "[cluster]\nconfigured = yes\n");
        assertEquals(List.of("status true", "answer true"), isCluster().reports());
        configuration.write(configured + "[cluster]\nconfigured = no\n");
        assertEquals(List.of("status true", "answer false"), isCluster().reports());
    }

    @Test
    void anUnreadableConfigurationGivesOnlyATextAboutMembership() {
        configuration.write("broken\n");
        assertEquals(List.of("text JNI: clsugetconf failed"), isCluster().reports());
    }

    @Test
    void locationsAreThoseOfTheConfiguration() {
        Recorder result = new Recorder();
        assertEquals(Configuration.locations(), List.of(tkv.getTKVLocations(result)));
        assertEquals(List.of("status true", "answer " + Configuration.onCluster()), result.reports());
    }

    @Test
    void severalAddressesAreASharedRegistry() {
        configuration.write("[registry]\nlocation = etcd://a:2379 etcd://b:2379\nlocal_only = no\n");
        Recorder result = new Recorder();
        assertArrayEquals(new String[] {"etcd://a:2379", "etcd://b:2379"}, tkv.getTKVLocations(result));
        assertEquals(List.of("status true", "answer true"), result.reports());
    }

    @Test
    void anUnreadableConfigurationGivesOnlyATextAboutLocations() {
        configuration.write("broken\n");
        Recorder result = new Recorder();
        assertNull(tkv.getTKVLocations(result));
        assertEquals(1, result.reports().size());
        assertText(41, Configuration.file() + ":1", result.reports().get(0));
    }

    @Test
    void aDirectoryCanHoldARegistry(@TempDir Path directory) {
        Recorder result = new Recorder();
        assertEquals(0, tkv.checkTKVStorageType(directory.toString(), result));
        assertEquals(List.of("status true"), result.reports());
    }

    @Test
    void anAddressNamesADistributedRegistry() {
        Recorder result = new Recorder();
        assertEquals(2, tkv.checkTKVStorageType("etcd://host:2379", result));
        assertEquals(2, result.reports().size());
        assertEquals("status true", result.reports().get(1));
    }

    @ParameterizedTest
    @CsvSource({"relative/path, relative/path", "/no/such/parent, /no/such/parent", "'', ''", "etcd://, etcd"})
    void otherPathsAreRefusedWithTheReason(String path, String subject) {
        Recorder result = new Recorder();
        assertEquals(1, tkv.checkTKVStorageType(path, result));
        assertEquals(2, result.reports().size());
        assertTrue(result.reports().get(0).startsWith("text TKV-"), () -> result.reports().toString());
        assertTrue(result.reports().get(0).contains(subject), () -> result.reports().toString());
        assertEquals("status false", result.reports().get(1));
    }

    @Test
    void theBackupLocationIsTheConfiguredOne() {
        assertEquals("", done(tkv::getTKVBackupLocation));
        configuration.write(configured + "backup_location = /var/backups/tkv\n");
        assertDone(tkv::terminateTKV);
        assertDone(r -> tkv.initializeTKVLevel(0, r));
        assertEquals("/var/backups/tkv", done(tkv::getTKVBackupLocation));
    }

    @Test
    void thePatchLevelIsAKeysValue() {
        assertEquals(0, done(tkv::getPatchLevel));
        for (String name : List.of("SYSTEM", "SYSTEM.version")) {
            create(name);
        }
        put("SYSTEM.version.patch", "7");
        assertEquals(7, done(tkv::getPatchLevel));
        assertDone(r -> tkv.deleteKey("SYSTEM", true, r));
    }

    @Test
    void dependenciesOfTheDaemonAreRecorded() {
        assertDone(r -> tkv.setZUVEDDependencies(1, r));
        assertTrue(exists("SYSTEM.ZUVED.dependencies"));
        assertTrue(exists("SYSTEM.ZUVED.mode"));
        assertDone(r -> tkv.deleteKey("SYSTEM", true, r));
    }

    @Test
    void queriesWithinTheRegistryNeedASession() {
        assertDone(tkv::terminateTKV);
        assertCode(1, r -> assertEquals(0, tkv.getPatchLevel(r)));
        assertCode(1, r -> assertNull(tkv.getTKVBackupLocation(r)));
        assertCode(1, r -> tkv.setZUVEDDependencies(0, r));
    }
}
