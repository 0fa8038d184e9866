package velmar.qen.mgmt.nativesystem;

import velmar.qen.mgmt.registry.KeySecurity;
import velmar.qen.mgmt.registry.Registry;

/** Creates, as root, the registry for {@link OtherUserTest}. */
final class OtherUsersRegistry {
    private static final TKVNative TKV = new TKVNative();

    private OtherUsersRegistry() {}

    public static void main(String[] arguments) {
        must(r -> TKV.initializeTKVLevel(0, r));
        must(r -> TKV.openKey("", r));
        key("roots", 1, "root", "root");
        key("nobodys", 1, "nobody", "root");
        key("nogroups", 1, "root", "nogroup");
        key("as-session", 3, null, null);
        key("as-session-nogroup", 3, null, "nogroup");
        key("open", 5, null, null);
        must(r -> TKV.createKey("mixed", 5, null, null, null, r));
        must(r -> TKV.createKey("mixed.a", 5, null, null, null, r));
        must(r -> TKV.createKey("mixed.b", 1, null, "root", "root", r));
        must(r -> TKV.createKey("mixed.c", 5, null, null, null, r));
        must(TKV::terminateTKV);
        preferences();
    }

    /** The trees of preferences: that of the system is root's, and that of nobody was created by root. */
    private static void preferences() {
        try (Registry registry = Registry.open()) {
            registry.ensure("preferences.users", KeySecurity.readableByAll());
            registry.create("preferences.users.nobody",
                            KeySecurity.privateToUser().withOwner("nobody").withGroup("nogroup"));
            registry.ensure("preferences.system.app", KeySecurity.readableByAll());
            registry.put("preferences.system.app.@k", "root's");
        }
    }

    private static void key(String name, int type, String user, String group) {
        must(r -> TKV.setKeyValue(name, "value", type, "", user, group, r));
        must(r -> TKV.createKey(name + ".victim", type, "", user, group, r));
    }

    private static void must(java.util.function.Consumer<TKVResult> call) {
        TKVResult result = new TKVResult();
        call.accept(result);
        if (!result.getStatus()) {
            throw new IllegalStateException(result.toString());
        }
    }
}
