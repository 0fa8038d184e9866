package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;

/** The operator's command, which shows and stores what the native methods cannot: rights and bytes. */
final class Command {
    private Command() {}

    /** The lines that a command writes. */
    static List<String> run(String... arguments) throws IOException, InterruptedException {
        List<String> command = new ArrayList<>(List.of(System.getProperty("tkv.command")));
        command.addAll(List.of(arguments));
        Process process = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT).start();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, process.waitFor(), () -> command + ": " + output);
        return output.lines().toList();
    }
}
