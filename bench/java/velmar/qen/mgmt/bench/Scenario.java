package velmar.qen.mgmt.bench;

import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;

/** What is measured: one operation, repeated. Each scenario checks the peer's answers before it is timed. */
enum Scenario {
    READ_SAME("read-same") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            return reads(peer, dataset, new String[] {dataset.fullNames(dataset.readGroups())[0]});
        }
    },
    READ_GROUP("read-group") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            return reads(peer, dataset, dataset.fullNames(dataset.readGroups().subList(0, 1)));
        }
    },
    READ_ALL("read-all") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            return reads(peer, dataset, dataset.fullNames(dataset.readGroups()));
        }
    },
    /** What {@link #READ_ALL} is, while a second thread does the same. */
    READ_TWO("read-two") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            return READ_ALL.on(peer, dataset);
        }
    },
    /** What {@link #READ_ALL} is, in sixteen threads: the time from one read to the next of any thread. */
    READ_SIXTEEN("read-sixteen") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            return READ_ALL.on(peer, dataset);
        }
    },
    /** Each key of a group once after each change of another key, always in the same order. */
    REREAD_GROUP("reread-group") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            return rereads(peer, dataset, dataset.readGroups().subList(0, 1), false);
        }
    },
    /** Each key of all groups likewise. */
    REREAD_ALL("reread-all") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            return rereads(peer, dataset, dataset.readGroups(), false);
        }
    },
    /** What {@link #REREAD_ALL} is, in another order each time. */
    REREAD_SHUFFLED("reread-shuffled") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            return rereads(peer, dataset, dataset.readGroups(), true);
        }
    },
    LIST("list") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            String group = dataset.groups().get(0);
            List<String> names = peer.list(group).stream().sorted().toList();
            require(peer, names.equals(dataset.keys()), "a wrong list of " + names.size() + " names");
            return () -> peer.list(group);
        }
    },
    WRITE("write") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            Names names = new Names(dataset.fullNames(List.of(dataset.writtenGroup())));
            String name = names.next();
            peer.write(name, "checked");
            require(peer, "checked".equals(peer.read(name)), "a value that is not what was written");
            return new Operation() {
                private long count;

                @Override
                public Object run() throws Exception {
                    String value = Long.toString(count++);
                    peer.write(names.next(), value);
                    return value;
                }
            };
        }
    },
    OPEN_KEY("open-key") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            Names names = new Names(dataset.fullNames(dataset.readGroups().subList(0, 1)));
            return () -> {
                String name = names.next();
                peer.openAndCloseKey(name);
                return name;
            };
        }
    },
    OPEN_STORE("open-store") {
        @Override
        Operation on(Peer peer, Dataset dataset) throws Exception {
            String name = dataset.fullNames(dataset.readGroups())[0];
            return () -> {
                peer.close();
                peer.open();
                return read(peer, dataset, name);
            };
        }
    };

    /** Before it is timed, a scenario checks about this many of its answers. */
    private static final int CHECKS = 100_000;

    private final String title;

    Scenario(String title) {
        this.title = title;
    }

    String title() {
        return title;
    }

    static Scenario of(String title) {
        return Arrays.stream(values()).filter(one -> one.title.equals(title)).findFirst()
                .orElseThrow(() -> new IllegalArgumentException("there is no scenario '" + title + "'"));
    }

    /** Runs it once; using the result keeps the work from being optimised away. */
    interface Operation {
        Object run() throws Exception;

        /** What has to be done before each run, and is not timed, if a run is more than one operation. */
        default void prepare() throws Exception {}

        /** Returns the number of operations in a run. */
        default int size() {
            return 1;
        }
    }

    /** The operation, on an open peer that holds the dataset. */
    abstract Operation on(Peer peer, Dataset dataset) throws Exception;

    private static Operation reads(Peer peer, Dataset dataset, String[] fullNames) throws Exception {
        for (int i = 0; i < fullNames.length; i += 1 + fullNames.length / CHECKS) {
            read(peer, dataset, fullNames[i]);
        }
        Names names = new Names(fullNames);
        return () -> peer.read(names.next());
    }

    private static Operation rereads(Peer peer, Dataset dataset, List<String> groups, boolean shuffles)
            throws Exception {
        reads(peer, dataset, dataset.fullNames(groups));
        Operation change = WRITE.on(peer, dataset);
        List<String> names = Arrays.asList(dataset.fullNames(groups).clone());
        Random random = new Random(names.size());
        Collections.shuffle(names, random);
        return new Operation() {
            @Override
            public void prepare() throws Exception {
                change.run();
                if (shuffles) {
                    Collections.shuffle(names, random);
                }
            }

            @Override
            public Object run() throws Exception {
                String value = null;
                for (String name : names) {
                    value = peer.read(name);
                }
                return value;
            }

            @Override
            public int size() {
                return names.size();
            }
        };
    }

    private static String read(Peer peer, Dataset dataset, String name) throws Exception {
        String value = peer.read(name);
        require(peer, dataset.value(name).equals(value), "'" + value + "' as the value of " + name);
        return value;
    }

    private static void require(Peer peer, boolean right, String answer) {
        if (!right && !peer.isControl()) {
            throw new IllegalStateException(peer.description() + " gave " + answer);
        }
    }

    /** Names in an endless random order: the same in every JVM, and another one for each thread. */
    private static final class Names {
        private static final AtomicLong SEEDS = new AtomicLong(0x2545F4914F6CDD1DL);
        private static final long APART = 0x9E3779B97F4A7C15L;

        private final String[] names;
        private long state = SEEDS.getAndAdd(APART);

        Names(String[] names) {
            this.names = names;
        }

        String next() {
            state ^= state << 13;
            state ^= state >>> 7;
            state ^= state << 17;
            return names[(int) (((state >>> 33) * names.length) >>> 31)];
        }
    }
}
