package velmar.qen.mgmt.nativesystem;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/**
 * Receives the report of a native method: a status and, on failure, a message or a code.
 *
 * <p>An object can be used for several calls, one after the other; {@link #reset} returns it to its initial state. The
 * setters are for the native methods. A subclass may override them, and receives the calls of those that it does. In
 * place of a setter that the class inherits from this one, the native methods set the field itself.
 *
 * <p>Tracing is switched for the whole process, by {@link #setTracing} or the property {@code tkv.trace}. The
 * lines go to the logger {@code velmar.qen.mgmt.tkv}; a subclass that overrides {@link #trace} receives them instead.
 *
 * <p>An object may be used by one thread at a time. The tracing switch may be used by any thread.
 */
public class TKVResult {
    /** Read by native code: not 0 while tracing is on. */
    static final ByteBuffer TRACE_SWITCH = ByteBuffer.allocateDirect(Integer.BYTES).order(ByteOrder.nativeOrder());

    private static final VarHandle SWITCH_WORD =
            MethodHandles.byteBufferViewVarHandle(int[].class, ByteOrder.nativeOrder());
    /** Guarded by the class: the last argument of setTracing, and the number of holds on tracing. */
    private static boolean wanted;
    private static int holders;
    private static final System.Logger LOGGER = System.getLogger("velmar.qen.mgmt.tkv");

    static {
        setTracing(Boolean.getBoolean("tkv.trace"));
    }

    /** Set by native code, by these names. */
    private boolean status;
    private boolean booleanResult;
    private int errCode;
    private String resultString;

    /** Creates an object to which nothing has been reported: status false, code 0, no message. */
    public TKVResult() {}

    /**
     * Switches tracing on or off for the process.
     *
     * @param on whether native methods write trace lines
     */
    public static synchronized void setTracing(boolean on) {
        wanted = on;
        publish();
    }

    /**
     * Returns whether tracing was switched on.
     *
     * @return true if it was
     */
    public static synchronized boolean isTracing() {
        return wanted;
    }

    /**
     * Keeps tracing on for a while, whether it is switched on or not. Meant for a subclass whose {@link #trace} reads
     * the lines. Each hold must be followed by a release.
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
     * Returns the status that was set last. Some methods set it to true after a failure.
     *
     * @return true if the call reported success
     */
    public final boolean getStatus() {
        return status;
    }

    /**
     * Returns the code of a failure for which the registry has no message.
     *
     * @return the code; 0 if none was reported
     */
    public final int getTKVErrCode() {
        return errCode;
    }

    /**
     * Returns the registry's message about a failure.
     *
     * @return the message; null if none was reported
     */
    public final String getTKVResultString() {
        return resultString;
    }

    /**
     * Returns the answer of a method that reports one here.
     *
     * @return the answer; false if none was reported
     */
    public final boolean getBooleanResult() {
        return booleanResult;
    }

    /** Returns this object to its initial state. */
    public void reset() {
        status = false;
        booleanResult = false;
        errCode = 0;
        resultString = null;
    }

    /**
     * Sets the status.
     *
     * @param status whether the call succeeded
     */
    public void setStatus(boolean status) {
        this.status = status;
    }

    /**
     * Sets the answer of a method that reports one here.
     *
     * @param booleanResult the answer
     */
    public void setBooleanResult(boolean booleanResult) {
        this.booleanResult = booleanResult;
    }

    /**
     * Sets the code of a failure.
     *
     * @param errCode the registry's result code; 0 or 1 for a missing session or name
     */
    public void setTKVErrCode(int errCode) {
        this.errCode = errCode;
    }

    /**
     * Sets the message of a failure.
     *
     * @param resultString the registry's message
     */
    public void setTKVResultString(String resultString) {
        this.resultString = resultString;
    }

    /**
     * Writes a trace line to the logger.
     *
     * @param line the line as the native method wrote it, including line ends
     */
    public void trace(String line) {
        // Tracing has a switch of its own, so the lines are not hidden behind a debug level as well.
        LOGGER.log(System.Logger.Level.INFO, () -> line.strip());
    }

    @Override
    public String toString() {
        return "status " + status + ", code " + errCode + ", text " + resultString;
    }
}
