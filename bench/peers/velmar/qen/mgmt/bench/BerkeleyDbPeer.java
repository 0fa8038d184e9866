package velmar.qen.mgmt.bench;

import com.sleepycat.db.Cursor;
import com.sleepycat.db.Database;
import com.sleepycat.db.DatabaseConfig;
import com.sleepycat.db.DatabaseEntry;
import com.sleepycat.db.DatabaseException;
import com.sleepycat.db.DatabaseType;
import com.sleepycat.db.Environment;
import com.sleepycat.db.EnvironmentConfig;
import com.sleepycat.db.LockMode;
import com.sleepycat.db.OperationStatus;
import com.sleepycat.db.Transaction;
import java.io.FileNotFoundException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/** Berkeley DB through JNI: one B-tree keyed by full name, in a transactional environment. */
final class BerkeleyDbPeer implements Peer {
    private static final long CACHE_BYTES = 64L << 20;
    private static final int MAX_LOCKS = 50_000; // of one transaction, which locks each page

    private final Path directory;
    private Environment environment;
    private Database database;

    BerkeleyDbPeer(Path directory) {
        this.directory = directory;
    }

    @Override
    public String description() {
        return "Berkeley DB " + Environment.getVersionMajor() + "." + Environment.getVersionMinor() + "."
                + Environment.getVersionPatch() + " through JNI: transactions, log flushed each write, 64 MiB of cache";
    }

    @Override
    public void open() throws DatabaseException, FileNotFoundException {
        EnvironmentConfig config = new EnvironmentConfig();
        config.setAllowCreate(true);
        config.setInitializeCache(true);
        config.setInitializeLocking(true);
        config.setInitializeLogging(true);
        config.setTransactional(true);
        config.setLogAutoRemove(true);
        config.setCacheSize(CACHE_BYTES);
        config.setMaxLocks(MAX_LOCKS);
        config.setMaxLockObjects(MAX_LOCKS);
        environment = new Environment(directory.toFile(), config);
        DatabaseConfig tree = new DatabaseConfig();
        tree.setAllowCreate(true);
        tree.setTransactional(true);
        tree.setType(DatabaseType.BTREE);
        database = environment.openDatabase(null, "registry.db", null, tree);
    }

    @Override
    public void fill(Dataset dataset) throws DatabaseException {
        // A single transaction would need more locks than the environment has.
        for (String group : dataset.groups()) {
            Transaction transaction = environment.beginTransaction(null, null);
            for (String name : dataset.fullNames(List.of(group))) {
                database.put(transaction, entry(name), entry(dataset.value(name)));
            }
            transaction.commit();
        }
        environment.checkpoint(null);
    }

    @Override
    public String read(String name) throws DatabaseException {
        DatabaseEntry value = new DatabaseEntry();
        OperationStatus status = database.get(null, entry(name), value, LockMode.DEFAULT);
        return status == OperationStatus.SUCCESS ? text(value) : null;
    }

    @Override
    public List<String> list(String name) throws DatabaseException {
        String prefix = name + ".";
        List<String> names = new ArrayList<>();
        DatabaseEntry key = entry(prefix);
        DatabaseEntry nothing = new DatabaseEntry();
        nothing.setPartial(0, 0, true);
        Cursor cursor = database.openCursor(null, null);
        try {
            OperationStatus status = cursor.getSearchKeyRange(key, nothing, LockMode.DEFAULT);
            while (status == OperationStatus.SUCCESS) {
                String found = text(key);
                if (!found.startsWith(prefix)) {
                    break;
                }
                names.add(found.substring(prefix.length()));
                status = cursor.getNext(key, nothing, LockMode.DEFAULT);
            }
        } finally {
            cursor.close();
        }
        return names;
    }

    @Override
    public void write(String name, String value) throws DatabaseException {
        database.put(null, entry(name), entry(value));
    }

    @Override
    public Peer another() {
        return this;
    }

    @Override
    public void close() throws DatabaseException {
        database.close();
        environment.close();
    }

    private static DatabaseEntry entry(String text) {
        return new DatabaseEntry(text.getBytes(StandardCharsets.UTF_8));
    }

    private static String text(DatabaseEntry entry) {
        return new String(entry.getData(), entry.getOffset(), entry.getSize(), StandardCharsets.UTF_8);
    }
}
