/**
 * The managed side of the cluster registry.
 *
 * <p>{@link velmar.qen.mgmt.nativesystem} is the native protocol, for tools that speak it already.
 */
module velmar.qen.mgmt {
    exports velmar.qen.mgmt.nativesystem;
}
