package velmar.qen.mgmt.registry;

import java.util.Arrays;

/**
 * Names that were seen before, by their hashes: a name may be forgotten, and one may be taken for another, rarely.
 *
 * <p>Any thread may call. Threads may overwrite each other's marks, which has the same effect as forgetting them.
 */
final class SeenNames {
    private static final int FEWEST = 1 << 8;
    private static final int GROWTH = 8;

    private final int most;
    private int[] marks = new int[FEWEST];
    private int news;

    /** Creates one that remembers no more names than this, about; 2 to a power above 8. */
    SeenNames(int most) {
        this.most = most;
    }

    /** Returns whether a name was seen before, and remembers it, in place of another. */
    boolean wasSeen(String name) {
        int mark = spread(name.hashCode());
        int[] all = marks;
        int place = mark & all.length - 1;
        if (all[place] == mark) {
            return true;
        }
        all[place] = mark;
        if (++news > all.length && all.length < most) {
            news = 0;
            all = new int[Math.min(most, all.length * GROWTH)];
            all[mark & all.length - 1] = mark;
            marks = all;
        }
        return false;
    }

    /** Forgets all names. Not while others call. */
    void forget() {
        Arrays.fill(marks, 0);
        news = 0;
    }

    /** The hashes of names that differ in their last characters only are close together. */
    private static int spread(int hash) {
        int mixed = hash * 0x9E3779B1;
        return (mixed ^ mixed >>> 15) | 0x80000000;
    }
}
