package velmar.qen.mgmt.bench;

import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import velmar.qen.mgmt.nativesystem.TKVNative;
import velmar.qen.mgmt.nativesystem.TKVResult;

/** The registry through its native methods, at the location that the file in TKV_CONF configures. */
final class NativePeer implements Peer {
    private static final int SESSIONS_OWN = 3;

    private final TKVNative natives = new TKVNative();
    private final TKVResult result = new TKVResult();

    NativePeer(Path directory) {}

    @Override
    public String description() {
        return "TKV through TKVNative, on LMDB: a durable commit each write; rights and checksums verified";
    }

    @Override
    public void open() {
        natives.initializeTKVLevel(0, fresh());
        require();
        natives.openKey("", fresh());
        require();
    }

    @Override
    public String read(String name) {
        String value = natives.getKeyValue(name, fresh());
        require();
        return value;
    }

    @Override
    public List<String> list(String name) {
        String[] names = natives.listSubKeys(name, fresh());
        require();
        return Arrays.asList(names);
    }

    @Override
    public void write(String name, String value) {
        natives.setKeyValue(name, value, SESSIONS_OWN, "", null, null, fresh());
        require();
    }

    @Override
    public void openAndCloseKey(String name) {
        natives.openKey(name, fresh());
        require();
        natives.closeKey(fresh());
        require();
    }

    @Override
    public void close() {
        natives.terminateTKV(fresh());
        require();
    }

    @Override
    public boolean supports(Scenario scenario) {
        // Callers of the native methods take turns.
        return scenario != Scenario.READ_TWO && scenario != Scenario.READ_SIXTEEN;
    }

    private TKVResult fresh() {
        result.reset();
        return result;
    }

    private void require() {
        if (!result.getStatus()) {
            throw new IllegalStateException(result.toString());
        }
    }
}
