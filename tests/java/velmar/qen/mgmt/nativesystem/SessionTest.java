package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;
import static velmar.qen.mgmt.nativesystem.Reports.DONE;
import static velmar.qen.mgmt.nativesystem.Reports.assertCode;
import static velmar.qen.mgmt.nativesystem.Reports.assertDone;
import static velmar.qen.mgmt.nativesystem.Reports.assertRefused;
import static velmar.qen.mgmt.nativesystem.Reports.assertText;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

class SessionTest {
    private final TKVNative tkv = new TKVNative();
    private final Configuration configuration = new Configuration();

    @AfterEach
    void endSession() {
        configuration.close();
        assertDone(tkv::terminateTKV);
    }

    private void open() {
        assertDone(r -> tkv.initializeTKVLevel(0, r));
    }

    private List<String> failedOpening(int level) {
        Recorder result = new Recorder();
        result.setStatus(true);
        tkv.initializeTKVLevel(level, result);
        assertTrue(result.getStatus(), "a failed opening leaves the status alone");
        assertEquals("status true", result.reports().remove(0));
        assertEquals(2, result.reports().size(), () -> result.reports().toString());
        return result.reports();
    }

    private void assertOpeningFails(int code, String subject) {
        List<String> reports = failedOpening(0);
        assertEquals("code " + code, reports.get(0));
        assertText(code, subject, reports.get(1));
        assertCode(0, r -> tkv.keyExists("a", r));
        assertCode(1, r -> tkv.getKeyValue("a", r));
    }

    @Test
    void opensAgainAfterItEnded() {
        open();
        assertDone(tkv::terminateTKV);
        assertCode(0, r -> tkv.keyExists("", r));
        open();
        assertDone(r -> assertTrue(tkv.keyExists("", r)));
    }

    @Test
    void endsAsOftenAsAsked() {
        open();
        assertDone(tkv::terminateTKV);
        assertDone(tkv::terminateTKV);
    }

    @Test
    void opensASecondTimeWithoutAnEnd() {
        open();
        open();
        assertDone(r -> assertTrue(tkv.keyExists("", r)));
    }

    @Test
    void startsWithoutAWorkingKey() {
        open();
        assertDone(tkv::closeKey);
        assertCode(0, r -> tkv.createKey("a", 3, "", null, null, r));
        assertCode(1, r -> tkv.setKeyValue("a", "v", 3, "", null, null, r));
        assertCode(1, r -> tkv.createAndSetKeyValue("a", "v", 3, 3, "", null, null, r));
    }

    @Test
    void refusesANegativeLevelWithCodeAndText() {
        List<String> reports = failedOpening(-1);
        assertEquals("code 8", reports.get(0));
        assertText(8, "level", reports.get(1));
        assertCode(1, r -> assertNull(tkv.getKeyValue("a", r)));
    }

    @Test
    void namesFileAndLineOfAMalformedConfiguration() {
        configuration.write("[registry]\nlocation = /nowhere\nthis is no setting\n");
        assertOpeningFails(41, Configuration.file() + ":3");
    }

    @Test
    void namesFileAndLineOfAnUnknownSetting() {
        configuration.write("[registry]\nlocatoin = /nowhere\n");
        assertOpeningFails(41, Configuration.file() + ":2");
    }

    @Test
    void saysWhichDirectoryHasNoParent() {
        configuration.write("[registry]\nlocation = /no/such/place\n");
        List<String> reports = failedOpening(0);
        assertTrue(reports.get(1).contains("/no/such/place"), reports::toString);
    }

    @Test
    void leavesAFileInTheRegistrysPlaceAlone(@TempDir Path directory) throws IOException {
        Path file = Files.writeString(directory.resolve("file"), "not a registry");
        configuration.write("[registry]\nlocation = " + file + "\n");
        List<String> reports = failedOpening(0);
        assertTrue(reports.get(1).contains(file.toString()), reports::toString);
        assertEquals("not a registry", Files.readString(file));
    }

    @Test
    void worksAfterAFailedOpening() {
        configuration.write("broken");
        failedOpening(0);
        configuration.close();
        open();
        Recorder result = new Recorder();
        tkv.openKey("", result);
        assertEquals(DONE, result.reports());
    }

    @Test
    void keepsTheFormerWorkingKeyWhenAnotherCannotBeOpened() {
        open();
        assertDone(r -> tkv.openKey("", r));
        assertRefused(4, "nobody.home", r -> tkv.openKey("nobody.home", r));
        assertDone(r -> tkv.createKey("below-the-former", 3, "", null, null, r));
    }

    @Test
    void reportsASecondClosingOfTheWorkingKey() {
        open();
        assertDone(r -> tkv.openKey("", r));
        assertDone(tkv::closeKey);
        assertRefused(3, "", tkv::closeKey);
        assertRefused(3, "", r -> tkv.createKey("below-a-closed-key", 3, "", null, null, r));
    }

    @Test
    void createsBelowTheKeyThatWasOpenedLast() {
        open();
        assertDone(r -> tkv.openKey("", r));
        assertDone(r -> tkv.createKey("opened-last", 3, "", null, null, r));
        assertDone(r -> tkv.openKey("opened-last", r));
        assertDone(r -> tkv.createKey("below", 3, "", null, null, r));
        assertDone(r -> assertTrue(tkv.keyExists("opened-last.below", r)));
    }
}
