package velmar.qen.mgmt.bench;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/**
 * One run: fills a peer's store, describes the peer, writes until standard input ends, writes together with other
 * processes, or measures scenarios and prints a line for each: the scenario and the nanoseconds of each window, or "-"
 * if the peer has no such operation; then the memory that the process keeps for itself, in KiB. {@code bench/run} starts
 * a JVM for each run.
 */
final class Bench {
    private final Map<String, String> options = new LinkedHashMap<>();

    private Bench(String[] arguments) {
        for (int i = 0; i < arguments.length; i += 2) {
            if (!arguments[i].startsWith("--") || i + 1 == arguments.length) {
                throw new IllegalArgumentException("options come in pairs of --name and value: " + arguments[i]);
            }
            options.put(arguments[i].substring(2), arguments[i + 1]);
        }
    }

    public static void main(String[] arguments) throws Exception {
        new Bench(arguments).run();
    }

    private void run() throws Exception {
        Dataset dataset = new Dataset(number("groups"), number("keys"), number("depth"), number("value-size"));
        Peer peer = Peers.of(option("peer"), Path.of(option("directory")));
        peer.open();
        switch (option("scenarios")) {
            case "fill" -> peer.fill(dataset);
            case "describe" -> System.out.println("description\t" + peer.description());
            case "write-on" -> writeOn(peer, dataset);
            case "write-together" -> writeTogether(peer, dataset);
            default -> {
                measure(peer, dataset);
                System.out.println("memory\t" + ownMemory());
            }
        }
        peer.close();
    }

    private void measure(Peer peer, Dataset dataset) throws Exception {
        Stopwatch stopwatch = stopwatch();
        for (Scenario scenario : Arrays.stream(option("scenarios").split(",")).map(Scenario::of).toList()) {
            String figures = peer.supports(scenario) ? figures(stopwatch, scenario, peer, dataset) : "-";
            System.out.println(scenario.title() + "\t" + figures);
        }
    }

    private Stopwatch stopwatch() {
        return new Stopwatch(number("warm-up-ms") * 1_000_000L, number("window-ms") * 1_000_000L, number("windows"));
    }

    private static String figures(Stopwatch stopwatch, Scenario scenario, Peer peer, Dataset dataset)
            throws Exception {
        double[] means = switch (scenario) {
            case READ_TWO -> besideAnother(stopwatch, scenario, peer, dataset);
            case READ_SIXTEEN -> together(stopwatch, 16, scenario, peer, dataset);
            default -> alone(stopwatch, scenario, peer, dataset);
        };
        return Arrays.stream(means).mapToObj(mean -> String.format(Locale.ROOT, "%.2f", mean))
                .collect(Collectors.joining(" "));
    }

    private static double[] alone(Stopwatch stopwatch, Scenario scenario, Peer peer, Dataset dataset) throws Exception {
        Scenario.Operation operation = scenario.on(peer, dataset);
        System.gc();
        return stopwatch.nanosOf(operation);
    }

    private static double[] besideAnother(Stopwatch stopwatch, Scenario scenario, Peer peer, Dataset dataset)
            throws Exception {
        Scenario.Operation operation = scenario.on(peer, dataset);
        Scenario.Operation another = scenario.on(peer.another(), dataset);
        System.gc();
        BackgroundReader second = new BackgroundReader(another);
        double[] means = stopwatch.nanosOf(operation);
        second.stop();
        return means;
    }

    /** Threads that never wait would leave the JVM's compiler little time, so one of them warms up alone before. */
    private static double[] together(Stopwatch stopwatch, int count, Scenario scenario, Peer peer, Dataset dataset)
            throws Exception {
        List<Scenario.Operation> operations = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            operations.add(scenario.on(peer.another(), dataset));
        }
        stopwatch.warmUp(operations.get(0));
        System.gc();
        List<BackgroundReader> readers = operations.stream().map(BackgroundReader::new).toList();
        double[] means = stopwatch.nanosBetween(() -> readers.stream().mapToLong(BackgroundReader::count).sum());
        for (BackgroundReader reader : readers) {
            reader.stop();
        }
        return means;
    }

    private static void writeOn(Peer peer, Dataset dataset) throws Exception {
        Scenario.Operation write = Scenario.WRITE.on(peer, dataset);
        System.out.println("ready");
        Thread waiter = new Thread(Bench::awaitEndOfInput);
        waiter.start();
        while (waiter.isAlive()) {
            Stopwatch.sink = write.run();
        }
    }

    /** Prints the counts of {@link Stopwatch#countsSince}, from a time that standard input gives once all are ready. */
    private void writeTogether(Peer peer, Dataset dataset) throws Exception {
        Scenario.Operation write = Scenario.WRITE.on(peer, dataset);
        System.gc();
        System.out.println("ready");
        long begin = Long.parseLong(new BufferedReader(new InputStreamReader(System.in)).readLine());
        String counts = Arrays.stream(stopwatch().countsSince(begin, write)).mapToObj(Long::toString)
                .collect(Collectors.joining(" "));
        System.out.println("writes\t" + counts);
    }

    private static void awaitEndOfInput() {
        try {
            System.in.readAllBytes();
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** Returns the memory of this process that is not a file's, in KiB. */
    private static String ownMemory() throws IOException {
        try (Stream<String> lines = Files.lines(Path.of("/proc/self/status"))) {
            return lines.filter(line -> line.startsWith("RssAnon:")).map(line -> line.replaceAll("\\D", ""))
                    .findFirst().orElse("0");
        }
    }

    private String option(String name) {
        String value = options.get(name);
        if (value == null) {
            throw new IllegalArgumentException("--" + name + " is missing");
        }
        return value;
    }

    private int number(String name) {
        return Integer.parseInt(option(name));
    }
}
