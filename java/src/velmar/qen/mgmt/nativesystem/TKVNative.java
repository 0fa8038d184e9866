package velmar.qen.mgmt.nativesystem;

/**
 * The native methods of the cluster registry.
 *
 * <p><b>Session.</b> There is one a process, whatever the number of instances of this class: {@link
 * #initializeTKVLevel} opens it, {@link #terminateTKV} closes it. Before, after, and when the opening failed, every
 * method reports a failure, except the queries that need no session.
 *
 * <p><b>Names.</b> Full names from the registry's root, whose own name is {@code ""}, with levels joined by {@code
 * "."}. Only the methods that create keys take names relative to the working key, the key that {@link #openKey}
 * opened last; those of them that first look for the key by its full name give the same key only when the working key
 * is the root.
 *
 * <p><b>Result.</b> The last argument of every method: any object that has the methods {@code setStatus(boolean)},
 * {@code setBooleanResult(boolean)}, {@code setTKVErrCode(int)}, {@code setTKVResultString(String)} and {@code
 * trace(String)}, such as a {@link TKVResult}. On success its status becomes true. On failure it becomes false and the
 * object receives the registry's text or, when there is none, a code. Nothing is thrown but what the object's own
 * methods throw, and null arguments are reported like other failures.
 *
 * <p><b>Security.</b> Five arguments decide about a key that is created: a security type from 1 to 6, a parent key
 * (types 2, 3, 4 and 6 need one, only 2 reads it), a user (type 1 needs one) and a group, which override the type's
 * own. An existing key keeps its security.
 *
 * <p><b>Threads.</b> Any thread may call, but calls must not overlap.
 */
public final class TKVNative {
    static {
        TKVNativeLibrary.load();
    }

    /** An object to call the methods on; it has no state. */
    public TKVNative() {}

    /**
     * Opens the session on the configured registry. On failure the result object receives both code and text, and its
     * status stays as it was.
     *
     * @param level 0 or more; recorded only
     * @param result receives the outcome
     */
    public native void initializeTKVLevel(int level, Object result);

    /**
     * Closes the session, and with it every key still open. Always succeeds.
     *
     * @param result receives the outcome
     */
    public native void terminateTKV(Object result);

    /**
     * Makes a key the working key. The former one stays open until the session ends.
     *
     * @param keyName full name
     * @param result receives the outcome
     */
    public native void openKey(String keyName, Object result);

    /**
     * Closes the working key. The session keeps the closed key as its working key until the next {@link #openKey}.
     *
     * @param result receives the outcome
     */
    public native void closeKey(Object result);

    /**
     * Whether a key exists.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return true when it does
     */
    public native boolean keyExists(String keyName, Object result);

    /**
     * Deletes a key. Deleting one that does not exist succeeds.
     *
     * @param keyName full name
     * @param recurse whether its subkeys go too; a key with subkeys is refused otherwise
     * @param result receives the outcome
     */
    public native void deleteKey(String keyName, boolean recurse, Object result);

    /**
     * The names of a key's subkeys, one level each.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return null with status true when there are none and when there is no such key
     */
    public native String[] listSubKeys(String keyName, Object result);

    /**
     * Moves a key with its subtree.
     *
     * @param sourceKey full name
     * @param targetParentKey full name of the new parent
     * @param targetKey name below the new parent
     * @param flags 0 refuses an existing target, 1 replaces it
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
     * A key's value as a text: its bytes up to the first NUL, whatever their type.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return null with status true when there is no such key and when the value has at most one byte, as an empty
     *     text has
     */
    public native String getKeyValue(String keyName, Object result);

    /**
     * The texts of a list value, converted from the session's character set.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return the texts and a last element that is null; null with status true when there is no such key, when the
     *     value is empty, and when an element has characters that the character set does not have
     */
    public native String[] getKeyValues(String keyName, Object result);

    /**
     * Writes a text, and creates the key when it does not exist: {@link #setTypeKeyValue} with data type 3.
     *
     * @param keyName full name, also as a name relative to the working key
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
     * Writes a value, and creates the key when it does not exist. Needs a working key in both cases.
     *
     * @param keyName full name, also as a name relative to the working key
     * @param value the value as a text
     * @param dataType 1 stores the text's first 4 bytes, 2 its first 8, 3 the text and a NUL, others nothing
     * @param secType security type of a new key
     * @param parentKeyName full name of the key whose security is inherited
     * @param userName owning user, or null
     * @param groupName owning group, or null
     * @param result receives the outcome
     */
    public native void setTypeKeyValue(String keyName, String value, int dataType, int secType, String parentKeyName,
                                       String userName, String groupName, Object result);

    /**
     * Writes a list of texts as one value, and creates the key when it does not exist. The texts, a NUL after each and
     * one more after the last have room for 8192 bytes. An empty text ends the list for its readers.
     *
     * @param keyName full name, also as a name relative to the working key
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
     * Creates a key with its value; a key that exists is reported as {@code TKV_KEY_ALREADY_EXISTS}. When the key's
     * group is not the session's, the security asked for goes to the working key and the new key keeps the session's
     * user and group.
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
     * The user who owns a key. The name is stored in the character set of the session that gave it and read as UTF-8.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return null with status true when nobody does
     */
    public native String getUserName(String keyName, Object result);

    /**
     * The group that owns a key, read as by {@link #getUserName}.
     *
     * @param keyName full name
     * @param result receives the outcome
     * @return null with status true when none does
     */
    public native String getGroupName(String keyName, Object result);

    /**
     * Copies a key's value and subtree onto an existing key. Values over 2048 bytes stop the copy, and a copy that
     * stops leaves what it has done. After a failure within the subtree the status is true, and the object holds a code
     * or a text as well.
     *
     * @param sourceKey full name
     * @param destinationKey full name of an existing key
     * @param secType who owns the destination key itself: 2 the session's user, 3 and 4 the session's user and group,
     *     others as the source
     * @param result receives the outcome
     */
    public native void copyRecurse(String sourceKey, String destinationKey, int secType, Object result);

    /**
     * Tells by the result's boolean whether this node belongs to a cluster. Needs no session.
     *
     * @param result receives the answer
     */
    public native void isCluster(Object result);

    /**
     * The registry's storage locations; the result's boolean tells whether it is shared among nodes. Needs no session.
     *
     * @param result receives the outcome
     * @return null on failure, which leaves the status as it was
     */
    public native String[] getTKVLocations(Object result);

    /**
     * What a path can hold. Needs no session.
     *
     * @param path an absolute path or an address
     * @param result receives the outcome, with a text for 1 and 2
     * @return 0: a registry of this node; 2: it names a distributed registry; 1: neither
     */
    public native int checkTKVStorageType(String path, Object result);

    /**
     * The configured location of backups.
     *
     * @param result receives the outcome
     * @return an empty text when none is configured, null on failure
     */
    public native String getTKVBackupLocation(Object result);

    /**
     * The software patch level.
     *
     * @param result receives the outcome, which alone tells a level from a failure
     * @return the level, 0 without a session, -1 on failure
     */
    public native int getPatchLevel(Object result);

    /**
     * Records the start dependencies of the high-availability daemon.
     *
     * @param mode the storage mode that they are for
     * @param result receives the outcome
     */
    public native void setZUVEDDependencies(int mode, Object result);
}
