/**
 * The managed side of the cluster registry: the native protocol and the API above it.
 *
 * <p>Programs use {@link velmar.qen.mgmt.registry}. {@link velmar.qen.mgmt.nativesystem} is the protocol beneath it,
 * for tools that already use that protocol.
 */
module velmar.qen.mgmt {
    // For programs that keep their preferences in the registry; others need not have it.
    requires static transitive java.prefs;

    exports velmar.qen.mgmt.nativesystem;
    exports velmar.qen.mgmt.registry;
}
