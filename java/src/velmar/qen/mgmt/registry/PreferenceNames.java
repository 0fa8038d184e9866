package velmar.qen.mgmt.registry;

import java.util.Optional;
import java.util.prefs.Preferences;

/**
 * The levels of registry names that stand for nodes and keys of {@code java.util.prefs}.
 *
 * <p>A node's level is its name, and that of a preference is {@code @} and its key, so that a node and a preference of
 * the same name differ. {@code ~} and two hexadecimal digits stand for what a level cannot contain or what would be
 * ambiguous: the dot ({@code ~2E}), the NUL ({@code ~00}), the tilde ({@code ~7E}) and, at the beginning of a node's
 * name, the at sign ({@code ~40}). Everything else is written as it is, also a surrogate without its partner.
 *
 * <p>In modified UTF-8, an escape takes three bytes and any other {@code char} one to three. A name of 80 characters
 * therefore takes at most 241 of the 264 bytes that a level may have.
 */
final class PreferenceNames {
    private static final char PREFERENCE = '@';
    private static final char ESCAPE = '~';
    private static final int ESCAPE_SIZE = 3;
    /** Of a name as well as of a key. */
    private static final int MAX_CHARACTERS = Preferences.MAX_NAME_LENGTH;

    private PreferenceNames() {}

    /** Returns the level of a node, whose name is not empty. */
    static String ofNode(String name) {
        String level = escape(name);
        return isPreference(level) ? escaped(PREFERENCE) + level.substring(1) : level;
    }

    /** Returns the level of a preference, whose key may be empty. */
    static String ofPreference(String key) {
        return PREFERENCE + escape(key);
    }

    /** Returns whether a level stands for a preference, and otherwise for a node. */
    static boolean isPreference(String level) {
        return level.charAt(0) == PREFERENCE;
    }

    /** Returns the node's name or the preference's key; empty if no valid name or key is written like this. */
    static Optional<String> decode(String level) {
        boolean preference = isPreference(level);
        String name = unescape(preference ? level.substring(1) : level);
        boolean canonical = level.equals(preference ? ofPreference(name) : ofNode(name));
        boolean valid = name.length() <= MAX_CHARACTERS && name.indexOf(preference ? '\0' : '/') < 0;
        return canonical && valid ? Optional.of(name) : Optional.empty();
    }

    private static String escape(String name) {
        StringBuilder level = new StringBuilder(name.length());
        for (int i = 0; i < name.length(); i++) {
            char c = name.charAt(i);
            if (c == '.' || c == '\0' || c == ESCAPE) {
                level.append(escaped(c));
            } else {
                level.append(c);
            }
        }
        return level.toString();
    }

    private static String escaped(char c) {
        return String.format("%c%02X", ESCAPE, (int) c);
    }

    /** Leaves what is not an escape as it is. */
    private static String unescape(String level) {
        StringBuilder name = new StringBuilder(level.length());
        for (int i = 0; i < level.length(); i++) {
            int escaped = level.charAt(i) == ESCAPE ? escapedAt(level, i) : -1;
            name.append(escaped < 0 ? level.charAt(i) : (char) escaped);
            i += escaped < 0 ? 0 : ESCAPE_SIZE - 1;
        }
        return name.toString();
    }

    /** Returns the character of an escape; -1 if it is incomplete. */
    private static int escapedAt(String level, int at) {
        if (level.length() - at < ESCAPE_SIZE) {
            return -1;
        }
        int high = Character.digit(level.charAt(at + 1), 16);
        int low = Character.digit(level.charAt(at + 2), 16);
        return high < 0 || low < 0 ? -1 : high << 4 | low;
    }
}
