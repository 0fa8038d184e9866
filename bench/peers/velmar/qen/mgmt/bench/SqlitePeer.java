package velmar.qen.mgmt.bench;

import java.nio.file.Path;
import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.Statement;
import java.util.ArrayList;
import java.util.List;

/** SQLite through JDBC: one table whose primary key is the full name, and prepared statements. */
final class SqlitePeer implements Peer {
    private final String url;
    private Connection connection;
    private PreparedStatement select;
    private PreparedStatement selectBelow;
    private PreparedStatement upsert;

    SqlitePeer(Path directory) {
        this("jdbc:sqlite:" + directory.resolve("registry.db"));
    }

    private SqlitePeer(String url) {
        this.url = url;
    }

    @Override
    public String description() {
        try {
            return "SQLite " + connection.getMetaData().getDatabaseProductVersion()
                    + " through JDBC: journal_mode=WAL, synchronous=FULL, a transaction each write";
        } catch (SQLException failure) {
            throw new IllegalStateException(failure);
        }
    }

    @Override
    public void open() throws SQLException {
        connection = DriverManager.getConnection(url);
        try (Statement statement = connection.createStatement()) {
            statement.execute("PRAGMA journal_mode=WAL");
            statement.execute("PRAGMA synchronous=FULL");
            statement.execute("CREATE TABLE IF NOT EXISTS entry (name TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID");
        }
        select = connection.prepareStatement("SELECT value FROM entry WHERE name = ?");
        selectBelow = connection.prepareStatement("SELECT name FROM entry WHERE name > ? AND name < ?");
        upsert = connection.prepareStatement("INSERT OR REPLACE INTO entry VALUES (?, ?)");
    }

    @Override
    public void fill(Dataset dataset) throws SQLException {
        connection.setAutoCommit(false);
        for (String name : dataset.fullNames(dataset.groups())) {
            write(name, dataset.value(name));
        }
        connection.commit();
        connection.setAutoCommit(true);
    }

    @Override
    public String read(String name) throws SQLException {
        select.setString(1, name);
        try (ResultSet row = select.executeQuery()) {
            return row.next() ? row.getString(1) : null;
        }
    }

    @Override
    public List<String> list(String name) throws SQLException {
        selectBelow.setString(1, name + ".");
        selectBelow.setString(2, name + "/"); // the character after the dot
        List<String> names = new ArrayList<>();
        try (ResultSet row = selectBelow.executeQuery()) {
            while (row.next()) {
                names.add(row.getString(1).substring(name.length() + 1));
            }
        }
        return names;
    }

    @Override
    public void write(String name, String value) throws SQLException {
        upsert.setString(1, name);
        upsert.setString(2, value);
        upsert.executeUpdate();
    }

    @Override
    public Peer another() throws SQLException {
        SqlitePeer peer = new SqlitePeer(url);
        peer.open();
        return peer;
    }

    @Override
    public void close() throws SQLException {
        connection.close();
    }
}
