package velmar.qen.mgmt.registry;

import java.util.HashSet;
import java.util.Map;
import java.util.Set;
import java.util.TreeMap;

/**
 * What the listeners of a node know: the preferences and the names of the children that were there when the first of
 * them was added, and what they have been told since. If the registry does not say what has changed, the difference is
 * what they have to be told. Guarded by the node's lock.
 */
final class ToldPreferences {
    private final Map<String, String> texts = new TreeMap<>();
    private final Set<String> children = new HashSet<>();

    /** Returns the text of a preference; null if there is none. */
    String text(String key) {
        return texts.get(key);
    }

    /** Notes the text of a preference; null if it was removed. */
    void changed(String key, String text) {
        if (text == null) {
            texts.remove(key);
        } else {
            texts.put(key, text);
        }
    }

    boolean hasChild(String name) {
        return children.contains(name);
    }

    void added(String child) {
        children.add(child);
    }

    void removed(String child) {
        children.remove(child);
    }

    /** Returns the preferences that differ in another state, with their texts there; null if they are not there. */
    Map<String, String> changedIn(ToldPreferences other) {
        Map<String, String> changed = new TreeMap<>(other.texts);
        texts.forEach((key, text) -> {
            if (text.equals(other.texts.get(key))) {
                changed.remove(key);
            } else {
                changed.putIfAbsent(key, null);
            }
        });
        return changed;
    }

    /** Returns the names of the children that there are in another state only. */
    Set<String> addedIn(ToldPreferences other) {
        Set<String> added = new HashSet<>(other.children);
        added.removeAll(children);
        return added;
    }
}
