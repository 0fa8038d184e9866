package velmar.qen.mgmt.nativesystem;

/**
 * The native methods of the cluster registry.
 *
 * <p><b>Session.</b> A process has one session, regardless of the number of instances of this class. {@link
 * #initializeTKVLevel} opens it and {@link #terminateTKV} closes it. Without an open session, every method reports a
 * failure, except for the queries that need no session.
 *
 * <p><b>Names.</b> Keys are identified by full names: levels joined by {@code "."}, starting from the root, whose own
 * name is {@code ""}. Only the methods that create keys take names relative to the working key, which is the key that
 * {@link #openKey} opened last. Those that write an existing key first look for it by its full name, so the working key
 * should be the root for them.
 *
 * <p><b>Result.</b> The last argument of every method is an object that has the methods {@code setStatus(boolean)},
 * {@code setBooleanResult(boolean)}, {@code setTKVErrCode(int)}, {@code setTKVResultString(String)} and {@code
 * trace(String)}, such as a {@link TKVResult}. On success, its status becomes true. On failure, it becomes false, and
 * the object receives the registry's message or, if there is none, a code. The methods here throw nothing of their own.
 * If a method of the result object throws, the call still runs to its end, and the first such exception is then thrown.
 * Null arguments are reported like any other failure.
 *
 * <p><b>Security.</b> Four arguments determine the security of a key that is created: a security type from 1 to 6, a
 * parent key (required by types 2, 3, 4 and 6, but read only by 2), a user (required by type 1) and a group; user and
 * group override those of the type. An existing key keeps its security.
 *
 * <p><b>Threads.</b> Any thread may call, but calls must not overlap.
 */
public final class TKVNative {
    static {
        TKVNativeLibrary.load();
    }

    /** Creates an object to call the methods on. It has no state. */
    public TKVNative() {}

    /**
     * Opens the session on the configured registry. If the registry cannot be opened, the result object receives both a
     * code and a message, and its status does not change.
     *
     * @param level 0 or more; only recorded
     * @param result receives the outcome
     */
    public native void initializeTKVLevel(int level, Object result);

    /**
     * Closes the session and every key that is still open in it. Always succeeds.
     *
     * @param result receives the outcome
     */
    public native void terminateTKV(Object result);

    /**
     * Opens a key as the working key. The previous working key stays open until the session ends.
     *
     * @param keyName full name
     * @param result receives the outcome
     */
    public native void openKey(String keyName, Object result);

    /**
     * Closes the working key. It remains the working key, closed, until the next {@link #openKey}.
     *
     * @param result receives the outcome
     */
    public native void closeKey(Object result);

    /**
     * Returns whether a key exists.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return true if it exists
     */
    public native boolean keyExists(String keyName, Object result);

    /**
     * Deletes a key. Deleting a key that does not exist succeeds.
     *
     * @param keyName full name
     * @param recurse whether to delete its subkeys too; otherwise a key with subkeys is refused
     * @param result receives the outcome
     */
    public native void deleteKey(String keyName, boolean recurse, Object result);

    /**
     * Returns the names of a key's subkeys, each a single level.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return the names; null with status true if there are none or if there is no such key
     */
    public native String[] listSubKeys(String keyName, Object result);

    /**
     * Moves a key and everything below it.
     *
     * @param sourceKey full name
     * @param targetParentKey full name of the new parent
     * @param targetKey new name, relative to the new parent
     * @param flags 0 to refuse an existing target, 1 to replace it
     * @param result receives the outcome
     */
    public native void moveKey(String sourceKey, String targetParentKey, String targetKey, int flags, Object result);

    /**
     * Creates a key without a value.
     *
     * @param keyName name relative to the working key
     * @param secType security type
     * @param parentKeyName full name of the key whose security is inherited
     * @param userName owning user, or null
     * @param groupName owning group, or null
     * @param result receives the outcome
     */
    public native void createKey(String keyName, int secType, String parentKeyName, String userName, String groupName,
                                 Object result);

    /**
     * Returns a key's value as a text: its bytes up to the first NUL, regardless of its type.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return the text; null with status true if there is no such key, or if the value has at most one byte, as an
     *     empty text has
     */
    public native String getKeyValue(String keyName, Object result);

    /**
     * Returns the texts of a list value, converted from the session's character set.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return the texts, followed by a null element; null with status true if there is no such key, if the value is
     *     empty, or if a text cannot be converted
     */
    public native String[] getKeyValues(String keyName, Object result);

    /**
     * Writes a text, creating the key if it does not exist. Equivalent to {@link #setTypeKeyValue} with data type 3.
     *
     * @param keyName full name; for a new key, also its name relative to the working key
     * @param value the text
     * @param secType security type of a new key
     * @param parentKeyName full name of the key whose security is inherited
     * @param userName owning user, or null
     * @param groupName owning group, or null
     * @param result receives the outcome
     */
    public native void setKeyValue(String keyName, String value, int secType, String parentKeyName, String userName,
                                   String groupName, Object result);

    /**
     * Writes a value, creating the key if it does not exist. Needs a working key in either case.
     *
     * @param keyName full name; for a new key, also its name relative to the working key
     * @param value the value as a text
     * @param dataType 1 to store the first 4 bytes of the text, 2 for the first 8, 3 for the text and a NUL; any other
     *     type stores nothing
     * @param secType security type of a new key
     * @param parentKeyName full name of the key whose security is inherited
     * @param userName owning user, or null
     * @param groupName owning group, or null
     * @param result receives the outcome
     */
    public native void setTypeKeyValue(String keyName, String value, int dataType, int secType, String parentKeyName,
                                       String userName, String groupName, Object result);

    /**
     * Writes a list of texts as one value, creating the key if it does not exist. The list takes at most 8192 bytes,
     * counting a NUL after each text and one more at the end. Readers take an empty text for the end of the list.
     *
     * @param keyName full name; for a new key, also its name relative to the working key
     * @param values the texts
     * @param secType security type of a new key
     * @param parentKeyName full name of the key whose security is inherited
     * @param userName owning user, or null
     * @param groupName owning group, or null
     * @param result receives the outcome
     */
    public native void setKeyValues(String keyName, String[] values, int secType, String parentKeyName,
                                    String userName, String groupName, Object result);

    /**
     * Creates a key with a value. If the key exists, the message is {@code TKV_KEY_ALREADY_EXISTS}. If the requested
     * group is not the session's, the requested security is applied to the working key, and the new key has the
     * session's user and group.
     *
     * @param keyName name relative to the working key
     * @param value the value as a text
     * @param dataType as for {@link #setTypeKeyValue}
     * @param secType security type
     * @param parentKeyName full name of the key whose security is inherited
     * @param userName owning user, or null
     * @param groupName owning group, or null
     * @param result receives the outcome
     */
    public native void createAndSetKeyValue(String keyName, String value, int dataType, int secType,
                                            String parentKeyName, String userName, String groupName, Object result);

    /**
     * Returns the user who owns a key. The name was stored in the character set of the session that set it, and is read
     * as UTF-8.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return the user; null with status true if the key has no owner
     */
    public native String getUserName(String keyName, Object result);

    /**
     * Returns the group that owns a key, read as by {@link #getUserName}.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return the group; null with status true if the key has none
     */
    public native String getGroupName(String keyName, Object result);

    /**
     * Copies a key's value and everything below the key onto an existing key. A value over 2048 bytes stops the copy,
     * and what was copied by then stays. After a failure below the key, the status is true, and the object also holds a
     * code or a message.
     *
     * @param sourceKey full name
     * @param destinationKey full name of an existing key
     * @param secType the owner of the destination key itself: 2 for the session's user, 3 or 4 for the session's user
     *     and group, any other for the source's
     * @param result receives the outcome
     */
    public native void copyRecurse(String sourceKey, String destinationKey, int secType, Object result);

    /**
     * Sets the result's boolean to whether this node belongs to a cluster. Needs no session.
     *
     * @param result receives the answer
     */
    public native void isCluster(Object result);

    /**
     * Returns the registry's storage locations, and sets the result's boolean to whether several nodes share the
     * registry. Needs no session. Each call keeps 24 KB of memory until the process ends.
     *
     * @param result receives the outcome
     * @return the locations; null on failure, which does not change the status
     */
    public native String[] getTKVLocations(Object result);

    /**
     * Returns what kind of registry can be stored at a path. Needs no session.
     *
     * @param path an absolute path or an address
     * @param result receives the outcome, with a message for 1 and 2
     * @return 0 for a registry of this node, 2 for the address of a distributed registry, 1 for neither
     */
    public native int checkTKVStorageType(String path, Object result);

    /**
     * Returns the configured location of backups.
     *
     * @param result receives the outcome
     * @return the location; an empty text if none is configured, null on failure
     */
    public native String getTKVBackupLocation(Object result);

    /**
     * Returns the software patch level.
     *
     * @param result receives the outcome; only its status distinguishes a level from a failure
     * @return the level; 0 without a session, -1 on failure
     */
    public native int getPatchLevel(Object result);

    /**
     * Records the start dependencies of the high-availability daemon.
     *
     * @param mode the storage mode that the dependencies are for
     * @param result receives the outcome
     */
    public native void setZUVEDDependencies(int mode, Object result);
}
