package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Test;

/** The documents show the code that {@link TutorialTest} runs, word for word. */
class DocumentedCodeTest {
    private static final Path SOURCES = Path.of(System.getProperty("tkv.sources"));
    private static final Pattern SHOWN =
            Pattern.compile("<!-- snippet (\\S+) -->\n```java\n(.*?)```\n", Pattern.DOTALL);

    private static Map<String, String> tested() throws IOException {
        Map<String, String> snippets = new HashMap<>();
        List<String> lines = null;
        String name = null;
        String file = "tests/java/velmar/qen/mgmt/registry/TutorialTest.java";
        for (String line : Files.readAllLines(SOURCES.resolve(file))) {
            if (line.strip().startsWith("// snippet ")) {
                name = line.strip().substring("// snippet ".length());
                lines = new ArrayList<>();
            } else if (line.strip().equals("// end")) {
                snippets.put(name, String.join("\n", lines).stripIndent() + "\n");
                lines = null;
            } else if (lines != null) {
                lines.add(line);
            }
        }
        return snippets;
    }

    private static int assertShows(String document, Map<String, String> tested) throws IOException {
        Matcher shown = SHOWN.matcher(Files.readString(SOURCES.resolve(document)));
        int count = 0;
        for (; shown.find(); count++) {
            assertEquals(tested.get(shown.group(1)), shown.group(2), document + ", " + shown.group(1));
        }
        return count;
    }

    @Test
    void theTutorialShowsAllOfIt() throws IOException {
        Map<String, String> tested = tested();
        assertEquals(tested.size(), assertShows("docs/java.md", tested));
    }

    @Test
    void theReadmeShowsOnlyWhatIsTested() throws IOException {
        String readme = Files.readString(SOURCES.resolve("README.md"));
        assertTrue(assertShows("README.md", tested()) > 0, "the first example");
        assertEquals(readme.split("```java\n", -1).length, readme.split("-->\n```java\n", -1).length);
    }
}
