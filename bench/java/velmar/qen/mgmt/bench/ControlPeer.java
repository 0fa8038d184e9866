package velmar.qen.mgmt.bench;

import java.nio.file.Path;
import java.util.List;

/** The negative control: it does nothing, so its times are the overhead of the measurement. */
final class ControlPeer implements Peer {
    private static final List<String> NOTHING = List.of();

    ControlPeer(Path directory) {}

    @Override
    public String description() {
        return "an empty method: the cost of the harness";
    }

    @Override
    public void open() {}

    @Override
    public void fill(Dataset dataset) {}

    @Override
    public String read(String name) {
        return name;
    }

    @Override
    public List<String> list(String name) {
        return NOTHING;
    }

    @Override
    public void write(String name, String value) {}

    @Override
    public void openAndCloseKey(String name) {}

    @Override
    public Peer another() {
        return this;
    }

    @Override
    public void close() {}

    @Override
    public boolean supports(Scenario scenario) {
        return true;
    }

    @Override
    public boolean isControl() {
        return true;
    }
}
