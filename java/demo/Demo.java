import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.function.Consumer;
import java.util.function.Function;
import velmar.qen.mgmt.nativesystem.TKVNative;
import velmar.qen.mgmt.nativesystem.TKVResult;

/** Shows the native methods on a registry: {@code write} fills it, and {@code read}, in another JVM, reads it. */
final class Demo {
    private static final int OWNED_BY = 1;
    private static final int INHERITED = 2;
    private static final int AS_SESSION = 3;
    private static final int OPEN = 5;

    /** Writes UTF-8 regardless of the terminal's locale, as the operator's command does. */
    private static final PrintStream OUT =
            new PrintStream(new FileOutputStream(FileDescriptor.out), true, StandardCharsets.UTF_8);

    private final TKVNative tkv = new TKVNative();

    /** Prints trace lines as they occur. */
    private static final class Shown extends TKVResult {
        @Override
        public void trace(String line) {
            OUT.println("      trace  " + line.strip());
        }
    }

    public static void main(String[] arguments) {
        Demo demo = new Demo();
        if (arguments.length == 1 && arguments[0].equals("write")) {
            demo.write();
        } else if (arguments.length == 1 && arguments[0].equals("read")) {
            demo.read();
        } else {
            System.err.println("usage: Demo write | read");
            System.exit(2);
        }
    }

    private void write() {
        section("A session, with the root as working key");
        show("initializeTKVLevel(0)", r -> tkv.initializeTKVLevel(0, r));
        show("openKey(\"\")", r -> tkv.openKey("", r));

        section("Keys, each with a security type");
        show("createKey app, as the session", r -> tkv.createKey("app", AS_SESSION, "", null, null, r));
        show("createKey app.logs, owned by daemon",
               r -> tkv.createKey("app.logs", OWNED_BY, null, "daemon", null, r));
        show("createKey app.logs.old, inheriting",
               r -> tkv.createKey("app.logs.old", INHERITED, "app.logs", null, null, r));
        show("createKey app.scratch, open to all",
               r -> tkv.createKey("app.scratch", OPEN, null, null, null, r));

        section("A value of each data type");
        show("setKeyValue app.name",
               r -> tkv.setKeyValue("app.name", "größer als je \ud83d\ude80", AS_SESSION, "", null, null, r));
        show("setTypeKeyValue app.word, 4 bytes",
               r -> tkv.setTypeKeyValue("app.word", "abcdefghij", 1, AS_SESSION, "", null, null, r));
        show("setTypeKeyValue app.double, 8 bytes",
               r -> tkv.setTypeKeyValue("app.double", "abcdefghij", 2, AS_SESSION, "", null, null, r));
        show("createAndSetKeyValue app.port",
               r -> tkv.createAndSetKeyValue("app.port", "8080", 3, AS_SESSION, "", null, null, r));
        show("setKeyValues app.nodes",
               r -> tkv.setKeyValues("app.nodes", new String[] {"alpha", "beta", "gamma"}, AS_SESSION, "", null, null,
                                     r));

        section("What was written, read back");
        for (String name : new String[] {"app.name", "app.word", "app.double", "app.port"}) {
            answer("getKeyValue " + name, r -> tkv.getKeyValue(name, r));
        }
        answer("getKeyValues app.nodes", r -> Arrays.toString(tkv.getKeyValues("app.nodes", r)));

        section("Tests and deletions");
        answer("keyExists app.port", r -> tkv.keyExists("app.port", r));
        show("deleteKey app.port", r -> tkv.deleteKey("app.port", false, r));
        answer("keyExists app.port", r -> tkv.keyExists("app.port", r));

        section("Failures: the registry's text on the result object");
        show("deleteKey app, not its subkeys", r -> tkv.deleteKey("app", false, r));
        show("openKey no.such.key", r -> tkv.openKey("no.such.key", r));
        show("createKey app..x", r -> tkv.createKey("app..x", AS_SESSION, "", null, null, r));
        show("createAndSetKeyValue app.name again",
               r -> tkv.createAndSetKeyValue("app.name", "x", 3, AS_SESSION, "", null, null, r));

        section("The same with tracing on");
        TKVResult.setTracing(true);
        show("openKey no.such.key", r -> tkv.openKey("no.such.key", r));
        answer("getKeyValue app.name", r -> tkv.getKeyValue("app.name", r));
        TKVResult.setTracing(false);

        section("Trees: subkeys, owners, copy and move");
        answer("listSubKeys app", r -> Arrays.toString(tkv.listSubKeys("app", r)));
        answer("getUserName app.logs", r -> tkv.getUserName("app.logs", r));
        answer("getGroupName app", r -> tkv.getGroupName("app", r));
        show("createKey copy", r -> tkv.createKey("copy", AS_SESSION, "", null, null, r));
        show("copyRecurse app -> copy", r -> tkv.copyRecurse("app", "copy", AS_SESSION, r));
        answer("listSubKeys copy", r -> Arrays.toString(tkv.listSubKeys("copy", r)));
        show("moveKey copy -> app.backup", r -> tkv.moveKey("copy", "app", "backup", 0, r));
        answer("keyExists copy", r -> tkv.keyExists("copy", r));

        section("The cluster");
        answer("isCluster", r -> {
            tkv.isCluster(r);
            return r.getBooleanResult();
        });
        answer("getTKVLocations",
               r -> Arrays.toString(tkv.getTKVLocations(r)) + (r.getBooleanResult() ? ", shared" : ", this node's"));
        answer("checkTKVStorageType /tmp", r -> tkv.checkTKVStorageType("/tmp", r));
        answer("checkTKVStorageType etcd://host:2379", r -> tkv.checkTKVStorageType("etcd://host:2379", r));
        answer("getTKVBackupLocation", r -> tkv.getTKVBackupLocation(r));
        answer("getPatchLevel", r -> tkv.getPatchLevel(r));
        show("setZUVEDDependencies 1", r -> tkv.setZUVEDDependencies(1, r));
        answer("getKeyValues SYSTEM.ZUVED.dependencies",
               r -> Arrays.toString(tkv.getKeyValues("SYSTEM.ZUVED.dependencies", r)));

        show("terminateTKV", tkv::terminateTKV);
    }

    private void read() {
        section("Another JVM, after the first has ended");
        show("initializeTKVLevel(0)", r -> tkv.initializeTKVLevel(0, r));
        for (String name : new String[] {"app.name", "app.backup.name", "app.backup.word"}) {
            answer("getKeyValue " + name, r -> tkv.getKeyValue(name, r));
        }
        answer("getKeyValues app.backup.nodes",
               r -> Arrays.toString(tkv.getKeyValues("app.backup.nodes", r)));
        answer("getUserName app.backup.logs", r -> tkv.getUserName("app.backup.logs", r));
        show("terminateTKV", tkv::terminateTKV);
    }

    private static void section(String title) {
        OUT.println("\n" + title);
    }

    private static void show(String title, Consumer<TKVResult> call) {
        answer(title, r -> {
            call.accept(r);
            return r.getStatus() ? "done" : "failed";
        });
    }

    private static void answer(String title, Function<TKVResult, Object> call) {
        TKVResult result = new Shown();
        Object answer = call.apply(result);
        OUT.printf("  %-44s %s%n", title, answer);
        if (result.getTKVResultString() != null) {
            OUT.printf("  %-44s   text: %s%n", "", result.getTKVResultString());
        } else if (result.getTKVErrCode() != 0) {
            OUT.printf("  %-44s   code: %d%n", "", result.getTKVErrCode());
        }
    }
}
