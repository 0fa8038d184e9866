package velmar.qen.mgmt.nativesystem;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/**
 * What a native method reports: a status and, on failure, a text or a code.
 *
 * <p>An object may serve several calls one after the other; {@link #reset} puts it back to its start. The setters are
 * for the native methods.
 *
 * <p>Tracing is switched for the whole process, by {@link #setTracing} or the property {@code tkv.trace}. Its lines go
 * to the logger {@code velmar.qen.mgmt.tkv}; a subclass that overrides {@link #trace} takes them itself.
 *
 * <p>Objects are for one thread at a time, the tracing switch is for any.
 */
public class TKVResult {
    /** Read by the native side: not 0 while tracing is on. */
    static final ByteBuffer TRACE_SWITCH = ByteBuffer.allocateDirect(Integer.BYTES).order(ByteOrder.nativeOrder());

    private static final VarHandle SWITCH_WORD =
            MethodHandles.byteBufferViewVarHandle(int[].class, ByteOrder.nativeOrder());
    /** Guarded by the class: what setTracing last asked for, and how many objects need the lines themselves. */
    private static boolean wanted;
    private static int holders;
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");

    static {
        setTracing(Boolean.getBoolean("tkv.trace"));
    }

    private boolean status;
    private boolean booleanResult;
    private int errCode;
    private String resultString;

    /** An object to which nothing has been reported: status false, code 0, no text. */
    public TKVResult() {}

    /**
     * Switches tracing for the process.
     *
     * @param on whether native methods write trace lines
     */
    public static synchronized void setTracing(boolean on) {
        wanted = on;
        publish();
    }

    /**
     * Whether tracing was switched on.
     *
     * @return true when it was
     */
    public static synchronized boolean isTracing() {
        return wanted;
    }

    /**
     * Makes native methods write their lines for a while, whether tracing is switched on or not: for a subclass whose
     * {@link #trace} reads them. Each hold ends with a release.
     *
     * @param hold true to hold, false to release
     */
    protected static synchronized void holdTracing(boolean hold) {
        holders += hold ? 1 : -1;
        publish();
    }

    private static void publish() {
        SWITCH_WORD.setVolatile(TRACE_SWITCH, 0, wanted || holders > 0 ? 1 : 0);
    }

    /**
     * Whether the call succeeded, as far as it says so by its status.
     *
     * @return the status that was set last
     */
    public final boolean getStatus() {
        return status;
    }

    /**
     * The code of a failure for which the registry has no text.
     *
     * @return 0 when none was reported
     */
    public final int getTKVErrCode() {
        return errCode;
    }

    /**
     * The registry's text about a failure.
     *
     * @return null when none was reported
     */
    public final String getTKVResultString() {
        return resultString;
    }

    /**
     * The answer of a method that answers yes or no here.
     *
     * @return false when none was given
     */
    public final boolean getBooleanResult() {
        return booleanResult;
    }

    /** Forgets what was reported. */
    public void reset() {
        status = false;
        booleanResult = false;
        errCode = 0;
        resultString = null;
    }

    /**
     * Takes the status.
     *
     * @param status whether the call succeeded
     */
    public void setStatus(boolean status) {
        this.status = status;
    }

    /**
     * Takes the answer of a method that answers yes or no here.
     *
     * @param booleanResult the answer
     */
    public void setBooleanResult(boolean booleanResult) {
        this.booleanResult = booleanResult;
    }

    /**
     * Takes the code of a failure.
     *
     * @param errCode the registry's result code; 0 and 1 also stand for a missing session or name
     */
    public void setTKVErrCode(int errCode) {
        this.errCode = errCode;
    }

    /**
     * Takes the text of a failure.
     *
     * @param resultString the registry's text
     */
    public void setTKVResultString(String resultString) {
        this.resultString = resultString;
    }

    /**
     * Writes a trace line to the logger.
     *
     * @param line the line as the native method wrote it, with whatever line ends it has
     */
    public void trace(String line) {
        // Whoever switches tracing on wants to see the lines, so they do not hide behind a debug level.
        LOGGER.log(System.Logger.Level.INFO, () -> line.strip());
    }

    @Override
    public String toString() {
        return "status " + status + ", code " + errCode + ", text " + resultString;
    }
}
