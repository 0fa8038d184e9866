/**
 * The managed side of the cluster registry: the native protocol and the API above it.
 *
 * <p>{@link velmar.qen.mgmt.registry} is what a program uses. {@link velmar.qen.mgmt.nativesystem} is the protocol
 * beneath, for tools that speak it already.
 */
module velmar.qen.mgmt {
    exports velmar.qen.mgmt.nativesystem;
    exports velmar.qen.mgmt.registry;
}
