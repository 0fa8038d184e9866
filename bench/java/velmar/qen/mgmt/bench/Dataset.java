package velmar.qen.mgmt.bench;

import java.util.ArrayList;
import java.util.List;

/**
 * The keys that every store holds: groups of equal size, all keys at depth 4, each with a text of 20 characters. One
 * additional group takes the writes, so the keys that are read never change.
 */
final class Dataset {
    private static final String ABOVE = "app";
    private static final String TOP = "app.service";

    private final int groups;
    private final int keysPerGroup;

    Dataset(int groups, int keysPerGroup) {
        if (groups < 1 || keysPerGroup < 1) {
            throw new IllegalArgumentException("there has to be at least one group of one key");
        }
        this.groups = groups;
        this.keysPerGroup = keysPerGroup;
    }

    int keysPerGroup() {
        return keysPerGroup;
    }

    /** Full names of the keys above the groups, parents first. */
    List<String> above() {
        return List.of(ABOVE, TOP);
    }

    /** Full names of all groups; the last one takes the writes. */
    List<String> groups() {
        List<String> names = new ArrayList<>();
        for (int group = 0; group <= groups; group++) {
            names.add(TOP + String.format(".group%04d", group));
        }
        return names;
    }

    String writtenGroup() {
        return groups().get(groups);
    }

    List<String> readGroups() {
        return groups().subList(0, groups);
    }

    /** Names of the keys within a group, one level each, in byte order. */
    List<String> keys() {
        List<String> names = new ArrayList<>();
        for (int key = 0; key < keysPerGroup; key++) {
            names.add(String.format("key%06d", key));
        }
        return names;
    }

    /** Full names of the keys of some groups. */
    String[] fullNames(List<String> ofGroups) {
        List<String> keys = keys();
        String[] names = new String[ofGroups.size() * keys.size()];
        int next = 0;
        for (String group : ofGroups) {
            for (String key : keys) {
                names[next++] = group + "." + key;
            }
        }
        return names;
    }

    /** The value of a key. It differs from key to key, so that reading the wrong key is noticed. */
    static String value(String fullName) {
        return fullName.substring(fullName.length() - 20);
    }
}
