/**
 * The native protocol of the registry: 24 methods and the object on which they report.
 *
 * <p>A call throws nothing of its own. It reports on a {@link velmar.qen.mgmt.nativesystem.TKVResult}, and what it
 * gives back has its meaning only together with that report. Calls must not overlap, and there is one session a process.
 * Programs that want none of this use {@code velmar.qen.mgmt.registry.Registry}.
 */
package velmar.qen.mgmt.nativesystem;
