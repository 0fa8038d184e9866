package velmar.qen.mgmt.bench;

import java.nio.file.Path;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/**
 * One run: fills a peer's store, or measures scenarios on it and prints one line for each: the scenario and its
 * nanoseconds, or "-" if the peer has no such operation. {@code bench/run} starts a JVM for each run and makes tables of
 * the lines.
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
        Dataset dataset = new Dataset(number("groups"), number("keys"));
        Peer peer = Peers.of(option("peer"), Path.of(option("directory")));
        peer.open();
        if (option("scenarios").equals("fill")) {
            peer.fill(dataset);
            System.out.println("description\t" + peer.description());
        } else {
            measure(peer, dataset);
        }
        peer.close();
    }

    private void measure(Peer peer, Dataset dataset) throws Exception {
        Stopwatch stopwatch = new Stopwatch(number("warm-up-ms") * 1_000_000L, number("window-ms") * 1_000_000L,
                                            number("windows"));
        List<Scenario> scenarios = Arrays.stream(option("scenarios").split(",")).map(Scenario::of).toList();
        for (Scenario scenario : scenarios) {
            String nanos = "-";
            if (peer.supports(scenario)) {
                nanos = String.format("%.2f", stopwatch.nanosOf(scenario.on(peer, dataset)));
            }
            System.out.println(scenario.title() + "\t" + nanos);
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
