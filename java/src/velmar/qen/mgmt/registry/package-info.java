/**
 * The cluster registry: {@link velmar.qen.mgmt.registry.Registry}, and what its methods take, return and throw.
 *
 * <pre>{@code
 * try (Registry registry = Registry.open()) {
 *     int port = registry.getInt("app.port", 8080);
 *     registry.batch().createParents().put("app.port", port + 1).note("the next port").commit();
 * } catch (MissingRightException denied) {
 *     System.err.println("ask an operator for the right: " + denied.text());
 * } catch (RegistryException failure) {
 *     System.err.println(failure.text());
 * }
 * }</pre>
 *
 * <p>{@link velmar.qen.mgmt.registry.RegistryReader} declares the methods that read, for {@code Registry}, for a
 * {@link velmar.qen.mgmt.registry.Snapshot} of it, and for a program's own stand-ins in tests. {@link
 * velmar.qen.mgmt.registry.Registry#temporary} gives tests a registry of their own.
 *
 * <p>{@link velmar.qen.mgmt.registry.Batch} makes changes together, under conditions, and {@link
 * velmar.qen.mgmt.registry.Watch} tells a listener of the changes that others make.
 *
 * <p>{@link velmar.qen.mgmt.registry.RegistryPreferencesFactory} keeps the preferences of {@link java.util.prefs} in
 * the registry.
 *
 * <p><b>Threads.</b> Any number of threads may use a {@code Registry}, a {@code Snapshot}, an {@code EventReader} or a
 * {@code Watch}, and any number of registries can be open. Calls that read do not wait for each other; calls that change
 * something take turns, in all processes of the node together. The session of {@code TKVNative} is independent of them.
 * All other classes are immutable values, except for builders, batches, streams and the sets and arrays that methods
 * return, which are the caller's.
 *
 * <p><b>Nulls.</b> No argument may be null unless its description says so; otherwise, the call throws a {@link
 * java.lang.NullPointerException} and does nothing. No method returns null, except for the null that a caller has passed
 * as a default, and for {@link velmar.qen.mgmt.registry.RegistryException#key}.
 *
 * <p><b>Exceptions.</b> All are unchecked and extend {@link velmar.qen.mgmt.registry.RegistryException}, which carries
 * the registry's result code, the key in question and the registry's message. A failed call has changed nothing, with
 * one exception: after {@link velmar.qen.mgmt.registry.UndecidedException}, it is not known whether the change was made.
 * Invalid arguments cause a {@link java.lang.NullPointerException} or an {@link java.lang.IllegalArgumentException}.
 * Programs can create every exception themselves, for their tests.
 *
 * <table>
 * <caption>Kinds of failure</caption>
 * <thead><tr><th scope="col">exception</th><th scope="col">codes</th><th scope="col">cause</th></tr></thead>
 * <tbody>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.MissingRightException}</th><td>2</td>
 *     <td>the session's user lacks a right</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryClosedException}</th><td>3</td>
 *     <td>the registry, the snapshot or the stream was closed</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.KeyNotFoundException}</th><td>4</td>
 *     <td>no such key, or no parent to create it below</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.InvalidNameException}</th><td>5</td>
 *     <td>an empty level or a NUL; more than 264 bytes in a level, 64 levels, or 1023 bytes</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.KeyNotEmptyException}</th><td>6</td>
 *     <td>the key has subkeys</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryDamagedException}</th><td>7</td>
 *     <td>the stored data is damaged or the disk is failing</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.ValueTooLargeException}</th><td>10</td>
 *     <td>a value over 1 MiB</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.WrongTypeException}</th><td>8</td>
 *     <td>the key's value is of another type than the call reads</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.StorageFullException}</th><td>11</td>
 *     <td>no space left; the registry is unharmed</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryUnavailableException}</th><td>15</td>
 *     <td>no connection; the next call tries again</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryUnusableException}</th><td>18</td>
 *     <td>the storage cannot be used as it is configured</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryBusyException}</th><td>19</td>
 *     <td>another process is using the registry; the same call may succeed later</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.UndecidedException}</th><td>20</td>
 *     <td>it is not known whether the change was made; read before repeating it</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.ConflictException}</th><td>21</td>
 *     <td>a condition of a batch does not hold; read again before repeating the change</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.KeyExistsException}</th><td>55</td>
 *     <td>there already is such a key</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryException}</th><td>others</td>
 *     <td>8 an argument that the registry refuses, 12 out of memory, 14 unknown, 17 a key moved or copied into itself,
 *     41 invalid configuration, 42 unreadable configuration</td></tr>
 * </tbody>
 * </table>
 */
package velmar.qen.mgmt.registry;
