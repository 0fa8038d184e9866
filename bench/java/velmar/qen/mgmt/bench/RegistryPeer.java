package velmar.qen.mgmt.bench;

import java.nio.file.Path;
import java.util.List;
import velmar.qen.mgmt.registry.Registry;

/** The registry through its Java API, on the store of {@link NativePeer}. */
final class RegistryPeer implements Peer {
    private Registry registry;

    RegistryPeer(Path directory) {}

    @Override
    public String description() {
        return "TKV through Registry, on the same store";
    }

    @Override
    public void open() {
        registry = Registry.open();
    }

    @Override
    public String read(String name) {
        return registry.getText(name);
    }

    @Override
    public List<String> list(String name) {
        return registry.list(name);
    }

    @Override
    public void write(String name, String value) {
        registry.put(name, value);
    }

    @Override
    public Peer another() {
        return this;
    }

    @Override
    public void close() {
        registry.close();
    }
}
