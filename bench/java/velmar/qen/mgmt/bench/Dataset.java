package velmar.qen.mgmt.bench;

import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * The keys that every store in a comparison holds: groups of equal size; all keys have the same depth, and values of the
 * same size. One additional group receives the writes, so that the keys that are read never change. The native
 * benchmark creates the same names and values.
 */
final class Dataset {
    private final int groups;
    private final int keysPerGroup;
    private final String top;
    private final int valueSize;
    private final Map<List<String>, String[]> fullNames = new HashMap<>();

    /**
     * Describes a dataset.
     *
     * @param depth levels of a key's full name
     * @param valueSize characters of a value
     */
    Dataset(int groups, int keysPerGroup, int depth, int valueSize) {
        if (groups < 1 || keysPerGroup < 1 || depth < 2 || valueSize < 1) {
            throw new IllegalArgumentException("an impossible dataset");
        }
        this.groups = groups;
        this.keysPerGroup = keysPerGroup;
        this.top = levelsAbove(depth);
        this.valueSize = valueSize;
    }

    /** "app.service." above keys of depth 4. */
    private static String levelsAbove(int depth) {
        StringBuilder levels = new StringBuilder();
        for (int level = 0; level < depth - 2; level++) {
            levels.append(level == 0 ? "app." : level == 1 ? "service." : String.format("level%02d.", level));
        }
        return levels.toString();
    }

    /** Full names of all groups; the last one receives the writes. */
    List<String> groups() {
        List<String> names = new ArrayList<>();
        for (int group = 0; group <= groups; group++) {
            names.add(top + String.format("group%04d", group));
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

    /** Full names of the keys of some groups, the same strings at each call: threads share them. */
    String[] fullNames(List<String> ofGroups) {
        return fullNames.computeIfAbsent(ofGroups, this::makeFullNames);
    }

    private String[] makeFullNames(List<String> ofGroups) {
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

    /**
     * Returns the value of a key: the end of its name, repeated. It differs from key to key, so that reading the wrong
     * one is noticed.
     */
    String value(String fullName) {
        String text = fullName.repeat(1 + (valueSize - 1) / fullName.length());
        return text.substring(text.length() - valueSize);
    }
}
