/**
 * The native protocol of the registry: 24 methods and the object on which they report.
 *
 * <p>A call throws nothing of its own. It reports on a {@link velmar.qen.mgmt.nativesystem.TKVResult}, and its return
 * value has a meaning only together with that report. Calls must not overlap, and a process has a single session. Most
 * programs should use {@code velmar.qen.mgmt.registry.Registry} instead.
 */
package velmar.qen.mgmt.nativesystem;
