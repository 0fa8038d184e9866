package velmar.qen.mgmt.registry;

import java.time.Instant;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.List;
import java.util.Objects;

/**
 * What a program is told that watches a key. Events arrive in the order of their revisions, none of them twice.
 *
 * <p>Of a change, a program is told what it may know: that a key was created, moved or deleted if the session may list
 * the subkeys of the parent; that its value or security was changed if the session may read the key.
 */
public sealed interface RegistryEvent {
    /**
     * Returns the revision up to which the program has been told everything, this event included.
     *
     * @return the revision
     */
    long revision();

    /**
     * The registry was changed. One event stands for one change, whatever number of keys it is about.
     *
     * @param revision the revision of the change
     * @param time when it was made, by the clock of its author
     * @param author the user who made it
     * @param host the name of the machine on which it was made
     * @param program the name of the program that made it
     * @param process the process identifier of the program
     * @param note what the change is for; empty if its author has not said so
     * @param changes what was done to the keys that are watched, unmodifiable, never empty
     */
    record Changed(long revision, Instant time, String author, String host, String program, long process, String note,
                   List<KeyChange> changes) implements RegistryEvent {
        /**
         * Creates an event with a copy of a list.
         *
         * @param revision the revision of the change
         * @param time when it was made
         * @param author the user who made it
         * @param host the name of the machine
         * @param program the name of the program
         * @param process the process identifier
         * @param note what the change is for
         * @param changes what was done
         */
        public Changed {
            Objects.requireNonNull(time, "time");
            Objects.requireNonNull(author, "author");
            Objects.requireNonNull(host, "host");
            Objects.requireNonNull(program, "program");
            Objects.requireNonNull(note, "note");
            changes = List.copyOf(changes);
        }

        static Changed read(DataReader from) {
            long revision = from.word64();
            Instant time = Instant.EPOCH.plus(from.word64(), ChronoUnit.MICROS);
            String author = from.text();
            String host = from.text();
            String program = from.text();
            long process = Integer.toUnsignedLong(from.word32());
            String note = from.text();
            List<KeyChange> changes = new ArrayList<>();
            for (int count = from.word32(); count > 0; count--) {
                changes.add(KeyChange.read(from));
            }
            return new Changed(revision, time, author, host, program, process, note, changes);
        }
    }

    /**
     * Changes were lost, because they are no longer retained: anything may have changed. The program reads what it watches
     * anew. Events go on with the changes after this revision.
     *
     * @param revision the revision of the state to read, or of one before the next event
     */
    record Resync(long revision) implements RegistryEvent {}

    /**
     * The last event of a {@link Watch}: it has failed in a way that trying again does not help, and is closed.
     *
     * @param revision the revision of the last change that the program was told of
     * @param failure what has happened
     */
    record Failed(long revision, RegistryException failure) implements RegistryEvent {
        /**
         * Creates an event.
         *
         * @param revision the revision of the last change that the program was told of
         * @param failure what has happened
         */
        public Failed {
            Objects.requireNonNull(failure, "failure");
        }
    }
}
