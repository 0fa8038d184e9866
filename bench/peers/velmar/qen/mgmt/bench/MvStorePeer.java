package velmar.qen.mgmt.bench;

import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Iterator;
import java.util.List;
import org.h2.engine.Constants;
import org.h2.mvstore.MVMap;
import org.h2.mvstore.MVStore;

/** H2's MVStore: one map keyed by full name. One process at a time can open its file. */
final class MvStorePeer implements Peer {
    private final String file;
    private MVStore store;
    private MVMap<String, String> map;

    MvStorePeer(Path directory) {
        file = directory.resolve("registry.mv").toString();
    }

    @Override
    public String description() {
        return "H2 MVStore " + Constants.VERSION + ", one process only: commit and sync each write";
    }

    @Override
    public void open() {
        store = new MVStore.Builder().fileName(file).autoCommitDisabled().open();
        map = store.openMap("entry");
    }

    @Override
    public void fill(Dataset dataset) {
        for (String name : dataset.fullNames(dataset.groups())) {
            map.put(name, dataset.value(name));
        }
        store.commit();
    }

    @Override
    public String read(String name) {
        return map.get(name);
    }

    @Override
    public List<String> list(String name) {
        String prefix = name + ".";
        List<String> names = new ArrayList<>();
        Iterator<String> keys = map.keyIterator(prefix);
        while (keys.hasNext()) {
            String key = keys.next();
            if (!key.startsWith(prefix)) {
                break;
            }
            names.add(key.substring(prefix.length()));
        }
        return names;
    }

    @Override
    public void write(String name, String value) {
        map.put(name, value);
        store.commit();
        store.sync();
    }

    @Override
    public Peer another() {
        return this;
    }

    @Override
    public void close() {
        store.close();
    }
}
