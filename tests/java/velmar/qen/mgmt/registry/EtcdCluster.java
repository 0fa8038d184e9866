package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.PrintWriter;
import java.util.Arrays;
import java.util.stream.Collectors;

/** An etcd cluster of a test's own, whose members the test can end and start again. Closing it removes its data. */
final class EtcdCluster implements AutoCloseable {
    private final Process launcher;
    private final PrintWriter commands;
    private final BufferedReader answers;

    /** Starts the members and waits until all are healthy. */
    EtcdCluster(int members) throws IOException {
        launcher = new ProcessBuilder("python3", System.getProperty("tkv.etcd.launcher"), "--members",
                                      String.valueOf(members)).redirectError(ProcessBuilder.Redirect.INHERIT).start();
        commands = new PrintWriter(launcher.outputWriter(), true);
        answers = launcher.inputReader();
        start();
    }

    private String ask(String command) throws IOException {
        commands.println(command);
        String line = answers.readLine();
        assertNotNull(line, command);
        String[] answer = line.split(" ", 2);
        assertEquals("ok", answer[0], line);
        return answer.length == 1 ? "" : answer[1];
    }

    /** Starts every member that is not running, on the data it had, and waits until all are healthy. */
    void start() throws IOException {
        ask("start");
    }

    void kill(int member) throws IOException {
        ask("kill " + member);
    }

    /** Returns the configuration of a registry on this cluster. */
    String configuration() throws IOException {
        String locations = Arrays.stream(ask("endpoints").split(" ")).map(each -> "etcd://" + each)
                .collect(Collectors.joining(" "));
        return "[etcd]\nprefix = /restart/\ntimeout_ms = 30000\n[registry]\nlocation = " + locations
                + "\nlocal_only = no\n";
    }

    @Override
    public void close() {
        commands.close();
        launcher.onExit().join();
    }
}
