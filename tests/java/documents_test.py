"""Runs what README.md and docs/java.md show, block by block, and compares the output with what they show; and runs the
examples of the Javadoc.

The test prepares nothing that a reader does not have: a machine with TKV installed and without a registry. The build's
own files stand in for the installed ones; programs are run twice.
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT, JAVA, JAR, COMMAND = (pathlib.Path(argument).resolve() for argument in sys.argv[1:5])
del sys.argv[1:5]

INSTALLED_JAR = "/usr/local/share/java/tkv.jar"
BLOCK = re.compile(r"(?:<!-- (\w+) ?(\S*) -->\n)?```(\w*)\n(.*?)```\n", re.DOTALL)
PROGRAM = """import java.util.*;
import velmar.qen.mgmt.registry.*;

public final class Tutorial {{
    public static void main(String[] arguments) {{
        try (Registry registry = Registry.open()) {{
{snippet}
        }}
    }}
}}
"""

EXAMPLE = re.compile(r"<pre>\{@code\n(.*?)\n *\* \}</pre>", re.DOTALL)
# What surrounds the examples of the Javadoc, and what they leave behind.
EXAMPLES = """import java.time.*;
import java.util.*;
import java.util.concurrent.*;
import velmar.qen.mgmt.registry.*;

public final class Examples {{
    private final Registry registry = Registry.open();
    private final Executor executor = Runnable::run;
    private final CountDownLatch configured = new CountDownLatch(2);
    private volatile boolean running = true;
    private Watch watch;

    private void handle(RegistryEvent event) {{
        running = false;
    }}

    private void configure(RegistryReader state) {{
        configured.countDown();
    }}

    private void reconfigure() {{
        configured.countDown();
    }}

{methods}
    private void changeSomething() {{
        while (running || configured.getCount() > 0) {{
            registry.put("app.changed", Instant.now().toString());
        }}
    }}

    public static void main(String[] arguments) throws Exception {{
        Examples examples = new Examples();
        Registry registry = examples.registry;
        registry.batch().createParents().put("app.port", 1).put("app.host", "alpha").put("app.leader", "alpha")
                .create("app.candidate").commit();
        Thread changing = new Thread(examples::changeSomething);
        changing.start();
{calls}
        changing.join();
        examples.watch.close();
        for (String name : List.of("name", "port", "leader", "term", "count")) {{
            System.out.println(name + " " + registry.value("app." + name));
        }}
        System.out.println(registry.exists("app.candidate"));
        registry.close();
    }}
}}
"""
LEFT_BEHIND = """name Text[text=billing]
port Int32[number=8080]
leader Text[text=beta]
term Int32[number=8]
count Int32[number=1]
false
"""


def examples():
    """The examples in the Javadoc of each class that has any, without what belongs to the comment. Those of the package
    come first."""
    found = {}
    for path in (ROOT / "java/src").rglob("*.java"):
        texts = EXAMPLE.findall(path.read_text(encoding="utf-8"))
        if texts:
            found[path.stem] = [re.sub(r"^ *\* ?", "", text, flags=re.MULTILINE) for text in texts]
    return dict(sorted(found.items(), key=lambda each: (each[0] != "package-info", each[0])))


def blocks(document):
    """The blocks of a document: the kind that the comment above names, a file's name, the language, and the text."""
    return BLOCK.findall((ROOT / document).read_text(encoding="utf-8"))


class Documents(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.environment = {
            "PATH": f"{JAVA.parent}:{COMMAND.parent}:{os.environ['PATH']}",
            "LC_ALL": "C.UTF-8",
            "TKV_CONF": str(self.folder / "tkv.conf"),
            "JDK_JAVA_OPTIONS": f"-Djava.io.tmpdir={self.folder} -XX:TieredStopAtLevel=1",
        }
        (self.folder / "tkv.conf").write_text(f"[registry]\nlocation = {self.folder / 'registry'}\n")

    def run_line(self, line):
        done = subprocess.run(["bash", "-c", line.replace(INSTALLED_JAR, str(JAR))], cwd=self.folder,
                              env=self.environment, capture_output=True, text=True, timeout=240, check=False)
        self.assertEqual(done.returncode, 0, f"{line}\n{done.stderr}")
        return done.stdout

    def run_console(self, text):
        """Runs the lines that begin with $; the lines below each are its expected output."""
        for line, printed in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", text, re.MULTILINE):
            self.assertEqual(self.run_line(line), printed, line)

    def run_snippet(self, snippet):
        indented = "".join(" " * 12 + line for line in snippet.splitlines(keepends=True))
        (self.folder / "Tutorial.java").write_text(PROGRAM.format(snippet=indented))
        return self.run_line(f"java -cp {INSTALLED_JAR} Tutorial.java")

    def follow(self, document):
        """Runs a document from beginning to end, and returns the snippets with the output of each."""
        snippets = []
        for kind, name, language, text in blocks(document):
            if kind == "file":
                (self.folder / name).write_text(text)
            elif kind == "snippet":
                snippets.append([text, self.run_snippet(text)])
            elif language == "console":
                for _ in range(2 if "$ java " in text else 1):
                    self.run_console(text)
            elif language == "":
                self.assertEqual(snippets[-1][1], text, snippets[-1][0])
        return snippets

    def test_the_readme_works_as_printed(self):
        self.follow("README.md")

    def test_the_tutorial_works_as_printed_and_again(self):
        snippets = self.follow("docs/java.md")
        self.assertGreater(len(snippets), 7)
        self.assertEqual([self.run_snippet(snippet) for snippet, _ in snippets if "walk" not in snippet],
                         [printed for snippet, printed in snippets if "walk" not in snippet])

    def test_the_examples_of_the_javadoc_work(self):
        found = examples()
        self.assertIn("package-info", found)
        methods, calls = [], []
        for name, texts in found.items():
            for text in texts:
                method = f"{name.replace('-', '')}{len(calls)}"
                body = "".join(" " * 8 + line + "\n" for line in text.splitlines())
                methods.append(f"    private void {method}() throws Exception {{\n{body}    }}\n")
                calls.append(f"        examples.{method}();")
        self.assertGreater(len(calls), 6)
        (self.folder / "Examples.java").write_text(
            EXAMPLES.format(methods="\n".join(methods), calls="\n".join(calls)))
        self.assertEqual(self.run_line(f"java -cp {INSTALLED_JAR} Examples.java"), LEFT_BEHIND)

    def test_every_block_of_java_is_run(self):
        for document in ("README.md", "docs/java.md"):
            unnamed = [text for kind, _, language, text in blocks(document) if language == "java" and not kind]
            self.assertEqual(unnamed, [], document)
            shown = (ROOT / document).read_text(encoding="utf-8").count("```java\n")
            self.assertEqual(shown, sum(language == "java" for _, _, language, _ in blocks(document)), document)


if __name__ == "__main__":
    unittest.main()
