package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertFalse;

import java.io.IOException;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/** Runs a main class of the tests in another JVM, with the checks and the class path of this one. */
public final class ChildJvm {
    private ChildJvm() {}

    /** The exit code of a JVM and everything that it wrote. */
    public record Outcome(int exit, String output) {}

    public static Process start(List<String> options, Map<String, String> environment, Class<?> main,
                                String... arguments) throws IOException {
        List<String> command = new ArrayList<>(List.of(System.getProperty("java.home") + "/bin/java", "-Xshare:auto",
                                                       "-XX:TieredStopAtLevel=1", "-Xcheck:jni"));
        command.addAll(options);
        if (options.stream().noneMatch(option -> option.startsWith("-Dtkv.library.path="))) {
            command.add("-Dtkv.library.path=" + System.getProperty("tkv.library.path"));
        }
        command.addAll(List.of("-cp", System.getProperty("java.class.path"), main.getName()));
        command.addAll(List.of(arguments));
        ProcessBuilder builder = new ProcessBuilder(command).redirectErrorStream(true);
        builder.environment().putAll(environment);
        return builder.start();
    }

    /** Asserts that the JVM's checks of native code have found nothing. */
    static void assertNoComplaint(String output) {
        assertFalse(output.contains("in native method") || output.contains("JNI local refs"), output);
    }

    public static Outcome run(List<String> options, Map<String, String> environment, Class<?> main,
                              String... arguments) throws IOException, InterruptedException {
        Process process = start(options, environment, main, arguments);
        process.getOutputStream().close();
        String output = new String(process.getInputStream().readAllBytes());
        if (!process.waitFor(240, TimeUnit.SECONDS)) {
            process.destroyForcibly();
            throw new IOException("no end of " + main + ": " + output);
        }
        assertNoComplaint(output);
        return new Outcome(process.exitValue(), output);
    }
}
