/**
 * The cluster registry for programs: {@link velmar.qen.mgmt.registry.Registry} and what its methods take and throw.
 *
 * <p><b>Priorities.</b> First, nothing is lost and nothing is wrong in silence: a call that returns has done what it
 * says, and what the native protocol beneath reports in odd ways (a status of true after a failed copy, an empty text
 * that reads as no value, a list with a slot too many) arrives here as a result or as an exception. Second, one way to
 * do a thing. Third, speed: most methods are one native call, and those that need more say so by what they promise.
 *
 * <p><b>Threads.</b> A {@code Registry} may be used by any number of threads; its calls take turns. Whoever uses the
 * methods of {@code TKVNative} in the same process shares its one session and breaks this. The other classes are
 * immutable values.
 *
 * <p><b>Exceptions.</b> All are unchecked and have one root, {@link velmar.qen.mgmt.registry.RegistryException}, with
 * the registry's code, the key asked for and the registry's text. A failed call has changed nothing unless its own
 * description says otherwise. Arguments that no registry could take give {@link java.lang.NullPointerException} and
 * {@link java.lang.IllegalArgumentException}.
 *
 * <table>
 * <caption>Kinds of failure</caption>
 * <thead><tr><th scope="col">exception</th><th scope="col">codes</th><th scope="col">when</th></tr></thead>
 * <tbody>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.AccessDeniedException}</th><td>2</td>
 *     <td>the session's user lacks a right</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.KeyNotFoundException}</th><td>4</td>
 *     <td>no such key, or no parent to create it below</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.InvalidNameException}</th><td>5</td>
 *     <td>an empty level or a NUL, over 264 bytes a level, 64 levels or 1023 bytes</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.KeyNotEmptyException}</th><td>6</td>
 *     <td>the key has subkeys</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryDamagedException}</th><td>7</td>
 *     <td>the storage failed or holds something damaged</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.ValueTooLargeException}</th><td>9, 10</td>
 *     <td>a value over 1 MiB, a list over 8192 bytes, a copied value over 2048 bytes</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.StorageFullException}</th><td>11</td>
 *     <td>no room; the registry is unharmed</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryUnavailableException}</th><td>15</td>
 *     <td>no connection; later calls try again</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.KeyExistsException}</th><td>55</td>
 *     <td>there is such a key</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryClosedException}</th><td>3</td>
 *     <td>the registry was closed</td></tr>
 * <tr><th scope="row">{@link velmar.qen.mgmt.registry.RegistryException}</th><td>others</td>
 *     <td>8 an argument that the registry does not take, 12 out of memory, 14 unknown, 17 a key into itself, 41 and 42
 *     a configuration that is invalid or unreadable</td></tr>
 * </tbody>
 * </table>
 */
package velmar.qen.mgmt.registry;
