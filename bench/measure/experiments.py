"""What is measured: each experiment fills stores, runs programs on them and returns tables."""

from measure.programs import OUTSIDE, Dataset, Stores, progress, values_of
from measure.tables import Table, shown_number, shown_size

ALWAYS = ["control", "tkv", "registry", "lmdb"]
NATIVE = ["control", "tkv", "lmdb"]
JAVA_SCENARIOS = ["read-same", "read-group", "read-all", "list", "write", "open-key", "open-store"]
NATIVE_SCENARIOS = JAVA_SCENARIOS + ["trace-off"]
# Iterations of a scenario under the instruction counter. A second process runs twice as many; the difference counts.
COUNTED = {"read-same": 2000, "read-group": 2000, "read-all": 2000, "open-key": 2000, "list": 20, "trace-off": 20000}
# Rows for one or more threads that read in one process, and the scenario that measures each.
ALONE, SIXTEEN = "one reader", "16 readers at once, all together"
READERS = {ALONE: "read-all", "two readers at once, each": "read-two"}
REREADS = ("reread-group", "reread-all", "reread-shuffled")
SEVERAL_PROCESSES = ("tkv", "registry", "lmdb", "sqlite", "bdb")  # that can use one store at once

MIB = 2**20
FEW_KEYS = 10_000  # that are all read again within the usual warm-up
LARGEST_VALUE = MIB - 1  # without its NUL
# What a peer cannot hold, or not within reasonable time: the number of keys, and the size of a value or of all.
MOST_KEYS = {"prefs": 10_000}
LARGEST = {"prefs": 8000}
MOST_BYTES = {"sqlite": 100 * MIB, "bdb": 100 * MIB, "mvstore": 100 * MIB, "prefs": 0}


class Plan:
    """How much is measured: "quick" takes seconds and tells whether everything runs, "short" has fewer processes and
    smaller stores than "full"."""

    def __init__(self, size, forks=None):
        quick, full = size == "quick", size == "full"
        self.groups, self.keys = (4, 50) if quick else (100, 1000)
        self.warm_up_ms, self.window_ms, self.windows = (20, 10, 3) if quick else (600, 100, 7)
        # Some peers keep what they have read before: each key of a large store has to be read several times.
        self.warm_up_of_many_ms = self.warm_up_ms if quick else 3000
        # A reader beside a writer looks up more keys, and so reads fewer, until it knows them.
        self.warm_up_beside_writer_ms = self.warm_up_ms if quick else 5000
        self.forks = forks or (3 if full else 1)
        # One JVM for each scenario keeps one scenario's profile from shaping another's code; a quick run skips this.
        self.together = quick
        self.key_counts = [50, 200] if quick else [10**n for n in (range(2, 7) if full else range(2, 6))]
        self.depths = [2, 5] if quick else [2, 4, 8, 16, 32] if full else [2, 8, 32]
        self.value_sizes = [20, 3000] if quick else [20, 1024, 10 * 1024, 100 * 1024, LARGEST_VALUE]
        self.store_sizes = [MIB // 10, MIB // 4] if quick else [MIB // 10] + [
            MIB * 10**n for n in (range(4) if full else range(3))]
        self.writers = [1, 2] if quick else [1, 2, 4]
        # The log keeps the last 10,000 changes: it is full, and each write also drops what has become too old.
        self.logged, self.history_rounds = (50, 1) if quick else (11_000, 12)
        self.tree = (2, 100) if quick else (100, 1000) if full else (20, 1000)
        self.tree_rounds = 1 if quick else 3

    def dataset(self):
        return Dataset(self.groups, self.keys)

    def times(self, dataset, *scenarios):
        of_all = {"read-all", "read-two", "read-sixteen", "reread-all", "reread-shuffled"}
        reads_many = of_all & set(scenarios) and dataset.groups * dataset.keys > FEW_KEYS
        return self.times_after(self.warm_up_of_many_ms if reads_many else self.warm_up_ms)

    def times_beside_writer(self):
        return self.times_after(self.warm_up_beside_writer_ms)

    def times_after(self, warm_up_ms):
        return ["--warm-up-ms", str(warm_up_ms), "--window-ms", str(self.window_ms), "--windows", str(self.windows)]

    def batches(self, scenarios):
        return [scenarios] if self.together else [[scenario] for scenario in scenarios]

    def label(self, scenario):
        return {
            "read-same": "read, always the same key",
            "read-group": f"read, random of {self.keys:,}",
            "read-all": f"read, random of {self.groups * self.keys:,}",
            "list": f"list {self.keys:,} subkeys",
            "write": "durable write",
            "open-key": "open and close a key",
            "open-store": "close, open the store, read",
            "trace-off": "trace line, tracing off",
            "reread-group": f"{self.keys:,} keys",
            "reread-all": f"{self.groups * self.keys:,} keys",
            "reread-shuffled": f"{self.groups * self.keys:,} keys, in another order each time",
        }[scenario]

    def method(self):
        return (f"times: from {self.forks} fresh process(es) by turns for tkv, registry and lmdb in the tables of "
                "operations, readers, rereads and writers, fewer otherwise; each has "
                f"{self.windows} windows of {self.window_ms} ms after {self.warm_up_ms} ms, or "
                f"{self.warm_up_of_many_ms} ms if more than {FEW_KEYS:,} keys are read, or "
                f"{self.warm_up_beside_writer_ms} ms beside a writer")

    def data(self):
        return (f"stores: {self.groups * self.keys:,} keys of depth 4, values of 20 characters, unless a table says "
                "otherwise; one thread")


class Experiments:
    """Runs them, one after the other."""

    def __init__(self, programs, plan, peers):
        self.programs, self.plan = programs, plan
        self.peers = ALWAYS + peers
        self.compared = [peer for peer in self.peers if peer != "control"]
        self.descriptions = {}

    def java(self):
        with Stores(self.programs, self.plan.dataset(), self.peers) as stores:
            for peer in self.peers:
                self.descriptions[peer] = self.programs.run(stores.java(peer, ["describe"]))["description"]
            return [self.operations("Java", stores.java, self.peers, JAVA_SCENARIOS)]

    def native(self):
        with Stores(self.programs, self.plan.dataset(), NATIVE) as stores:
            return [self.operations("native", stores.native, NATIVE, NATIVE_SCENARIOS)]

    def operations(self, title, command, peers, scenarios):
        table = Table(title.lower(), f"{title}, time an operation", peers)
        for scenario in scenarios:
            table.add_row(self.plan.label(scenario))
        for turn, in_turn in self.turns(peers, of_outside=2):
            for batch in self.plan.batches(scenarios):
                progress(f"{title}: turn {turn} of {self.plan.forks}: {', '.join(batch)}")
                for peer in in_turn:
                    answer = self.programs.run(command(peer, batch, self.plan.times(self.plan.dataset(), *batch)))
                    for scenario in batch:
                        table.add(self.plan.label(scenario), peer, values_of(answer[scenario]))
        return table

    def turns(self, peers, of_outside):
        """Yields the number of each turn, and the peers that take it, in their order. So a change of the machine's speed
        hits all of them. Peers from outside take `of_outside` turns at most: no ratio to the floor depends on them."""
        for turn in range(self.plan.forks):
            first = turn % len(peers)
            yield turn + 1, [peer for peer in peers[first:] + peers[:first] if peer in ALWAYS or turn < of_outside]

    def instructions(self):
        table = Table("instructions", "native, instructions", ["tkv", "lmdb"], unit="instructions")
        with Stores(self.programs, self.plan.dataset(), table.columns) as stores:
            for scenario, runs in COUNTED.items():
                table.add_row(self.plan.label(scenario))
                for peer in table.columns:
                    progress(f"counting instructions: {scenario}, {peer}")
                    counts = [self.programs.run_counted(stores.native(peer, [scenario], ["--iterations", str(times)]))
                              for times in (runs, 2 * runs)]
                    if scenario not in counts[0][0]:  # a line is printed only for what the peer does not have
                        table.add(self.plan.label(scenario), peer, [(counts[1][1] - counts[0][1]) / runs])
        return [table]

    def readers(self):
        """Readers, alone and at once, and one beside a process that writes, in Java and natively."""
        with Stores(self.programs, self.plan.dataset(), self.compared) as stores:
            return [self.readings("Java", "readers", self.compared, stores.java, {**READERS, SIXTEEN: "read-sixteen"}),
                    self.readings("native", "native-readers", ["tkv", "lmdb"], stores.native, READERS)]

    def readings(self, title, name, peers, command, readers):
        table = Table(name, f"{title}, {self.plan.label('read-all')}", peers)
        beside = {"while another process writes": "read-all",
                  "while another process writes, always the same key": "read-same"}
        for label in (*readers, *beside):
            table.add_row(label)

        def measure(peer, scenarios, times_of):
            for label, scenario in scenarios.items():
                times = times_of(scenario)
                answer = self.programs.run(command(peer, [scenario], times))
                table.add(label, peer, values_of(answer[scenario]))

        for turn, in_turn in self.turns(peers, of_outside=1):
            for peer in in_turn:
                progress(f"{title}, readers: turn {turn} of {self.plan.forks}: {peer}")
                measure(peer, readers, lambda scenario: self.plan.times(self.plan.dataset(), scenario))
                if peer in SEVERAL_PROCESSES:
                    with self.programs.writing(command(peer, ["write-on"])):
                        measure(peer, beside, lambda _: self.plan.times_beside_writer())
        return table

    def rereads(self):
        """Reads of which nothing that was read before is of use without a look at the store: each key is read once
        after each change of another key."""
        peers = [peer for peer in ALWAYS if peer != "control"]
        table = Table("rereads", "Java, read each key once after each change", peers)
        dataset = self.plan.dataset()
        with Stores(self.programs, dataset, peers) as stores:
            for scenario in REREADS:
                table.add_row(self.plan.label(scenario))
                for turn, in_turn in self.turns(peers, of_outside=0):
                    progress(f"rereads: {scenario}, turn {turn} of {self.plan.forks}")
                    for peer in in_turn:
                        answer = self.programs.run(stores.java(peer, [scenario], self.plan.times(dataset, scenario)))
                        table.add(self.plan.label(scenario), peer, values_of(answer[scenario]))
        return [table]

    def writers(self):
        """Processes that write at the same time: the time from one write of any of them to the next. The writes of all
        are counted in the same windows."""
        peers = [peer for peer in self.compared if peer in SEVERAL_PROCESSES]
        table = Table("writers", "Java, durable write by any of", peers)
        dataset = self.plan.dataset()
        times = self.plan.times(dataset, "write")
        with Stores(self.programs, dataset, peers) as stores:
            for count in self.plan.writers:
                label = f"{count} process" + ("es" if count > 1 else "")
                table.add_row(label)
                for turn, in_turn in self.turns(peers, of_outside=1):
                    progress(f"writers: {label}: turn {turn} of {self.plan.forks}")
                    for peer in in_turn:
                        answers = self.programs.run_together([stores.java(peer, ["write-together"], times)] * count)
                        windows = zip(*(values_of(answer["writes"]) for answer in answers))
                        table.add(label, peer, [self.plan.window_ms * 1e6 / max(1, sum(writes)) for writes in windows])
        return [table]

    def history(self):
        """Durable writes on two registries, by turns: one keeps no history, the other has a full log."""
        table = Table("history", "native, history", ["off", "on"], base="off")
        row = "durable write"
        table.add_row(row)
        dataset = self.plan.dataset()
        times = self.plan.times(dataset, "write")
        with Stores(self.programs, dataset, ["tkv"], "[history]\noff = yes\n", "stores-off") as off, \
                Stores(self.programs, dataset, ["tkv"], "", "stores-on") as on:
            registries = {"off": off, "on": on}
            for stores in registries.values():
                stores.configure()
                self.programs.run(stores.native("tkv", ["write"], ["--iterations", str(self.plan.logged)]))
            for turn in range(self.plan.history_rounds):
                progress(f"history: round {turn + 1} of {self.plan.history_rounds}")
                for column in ("off", "on") if turn % 2 == 0 else ("on", "off"):
                    registries[column].configure()
                    answer = self.programs.run(registries[column].native("tkv", ["write"], times))
                    table.add(row, column, values_of(answer["write"]))
        return [table]

    def key_counts(self):
        """Times and memory by the number of keys."""
        peers = self.compared
        times = Table("keys", "Java, read a random key", peers, axis="keys")
        memory = Table("memory", "Java, memory of a process that reads, without files", peers, unit="KiB", axis="keys")
        for count in self.plan.key_counts:
            held = [peer for peer in peers if count <= MOST_KEYS.get(peer, count)]
            label = f"{count:,} keys"
            times.add_row(label, count)
            memory.add_row(label, count)
            groups = max(1, count // 1000)
            dataset = Dataset(groups, count // groups)
            with Stores(self.programs, dataset, held) as stores:
                for peer in held:
                    progress(f"{label}: {peer}")
                    answer = self.programs.run(stores.java(peer, ["read-all"], self.plan.times(dataset, "read-all")))
                    times.add(label, peer, values_of(answer["read-all"]))
                    memory.add(label, peer, values_of(answer["memory"]))
        return [times, memory]

    def depths(self):
        keys = 50 if self.plan.together else 1000
        return [self.series("depths", f"Java, read a random key of {keys:,}", "levels of a name", self.compared, "read-all",
                            [(depth, f"{depth} levels", Dataset(1, keys, depth)) for depth in self.plan.depths])]

    def values(self):
        def held(peer, size):
            return size <= LARGEST.get(peer, size)

        return [self.series("values", "Java, read one of 10 values", "bytes of a value", self.compared, "read-all",
                            [(size, shown_size(size), Dataset(1, 10, 4, size)) for size in self.plan.value_sizes], held)]

    def opening(self):
        """Closing, opening and reading from stores of various sizes, with values of 64 KiB."""
        def held(peer, size):
            return size <= MOST_BYTES.get(peer, size)

        value = 64 * 1024
        points = [(size, f"{shown_number(size / MIB)} MiB", Dataset(1, max(1, size // value // 2), 4, value - 1))
                  for size in self.plan.store_sizes]
        return [self.series("opening", "Java, close, open the store, read", "bytes of the store",
                            [peer for peer in self.compared if MOST_BYTES.get(peer) != 0], "open-store", points, held)]

    def series(self, name, title, axis, peers, scenario, points, held=lambda peer, position: True):
        """One scenario at some points of an axis: (position, label, dataset)."""
        table = Table(name, title, peers, axis=axis)
        for position, label, dataset in points:
            table.add_row(label, position)
            here = [peer for peer in peers if held(peer, position)]
            with Stores(self.programs, dataset, here) as stores:
                for peer in here:
                    progress(f"{title}: {label}: {peer}")
                    answer = self.programs.run(stores.java(peer, [scenario], self.plan.times(dataset, scenario)))
                    table.add(label, peer, values_of(answer[scenario]))
        return table

    def trees(self):
        """Whole subtrees, by the operator's command."""
        groups, keys = self.plan.tree
        tkv, saved = str(self.programs.build / "bin/tkv"), str(self.programs.output / "export.json")
        steps = {"export": ["export", "-o", saved, "app"], "verify": ["verify"], "copy": ["cp", "-r", "app", "copy"],
                 "move": ["mv", "copy", "moved"], "delete": ["rm", "-r", "moved"], "import": ["import", saved]}
        counted = f"{(groups + 1) * keys:,} keys"
        times = Table("trees", f"tkv, {counted}", ["tkv"])
        memory = Table("trees-memory", f"tkv, {counted}, largest resident memory", ["tkv"], unit="KiB")
        for step in steps:
            times.add_row(step)
            memory.add_row(step)
        with Stores(self.programs, Dataset(groups, keys), ["tkv"]):
            for _ in range(self.plan.tree_rounds):
                for step, arguments in steps.items():
                    if step == "import":
                        self.programs.run_timed([tkv, "--quiet", "--yes", "rm", "-r", "app"])
                    took, size = self.programs.run_timed([tkv, "--quiet", "--yes", *arguments])
                    times.add(step, "tkv", [took])
                    memory.add(step, "tkv", [size])
        return [times, memory]

    # The parts by name, in the order of a whole run.
    PARTS = {"java": java, "native": native, "readers": readers, "rereads": rereads, "writers": writers,
             "history": history, "keys": key_counts, "depths": depths, "values": values, "opening": opening,
             "trees": trees, "instructions": instructions}


def chosen_peers(text):
    """The peers of other makers that an option names; raises ValueError."""
    peers = [] if text == "none" else text.split(",")
    for peer in peers:
        if peer not in OUTSIDE:
            raise ValueError(f"there is no peer '{peer}'; there are {', '.join(OUTSIDE)}")
    return peers
