package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/** The operator's command, which can show and store what the native methods cannot: rights and bytes. */
public final class Command {
    private Command() {}

    /** Imports keys, each given as a line of an export; the others are below the first. */
    public static void importKeys(String top, List<String> keys) throws IOException, InterruptedException {
        Path file = Files.createTempFile("keys", ".json");
        try {
            Files.writeString(file, "{\"tkv\":1,\"top\":\"" + top + "\",\"keys\":[" + String.join(",\n", keys) + "]}");
            run("import", file.toString());
        } finally {
            Files.delete(file);
        }
    }

    /** Runs a command, which must succeed, and returns the lines that it writes. */
    public static List<String> run(String... arguments) throws IOException, InterruptedException {
        List<String> command = new ArrayList<>(List.of(System.getProperty("tkv.command")));
        command.addAll(List.of(arguments));
        Process process = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.INHERIT).start();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, process.waitFor(), () -> command + ": " + output);
        return output.lines().toList();
    }
}
