package velmar.qen.mgmt.nativesystem;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;

/** The switch of tracing, and a result object whose setters native code may replace by setting the fields. */
public class TKVResult {
    static final ByteBuffer TRACE_SWITCH = ByteBuffer.allocateDirect(Integer.BYTES).order(ByteOrder.nativeOrder());

    /** Buffers that cannot serve as the switch; code that reads them nevertheless finds tracing on. */
    static final ByteBuffer NONE = null;
    static final ByteBuffer ON_HEAP = filled(ByteBuffer.allocate(Integer.BYTES));
    static final ByteBuffer TOO_SMALL = filled(ByteBuffer.allocateDirect(Integer.BYTES - 1));
    static final ByteBuffer MISALIGNED = filled(ByteBuffer.allocateDirect(64)).position(1).slice();

    private static ByteBuffer filled(ByteBuffer buffer) {
        for (int index = 0; index < buffer.capacity(); index++) {
            buffer.put(index, (byte) 1);
        }
        return buffer;
    }

    public static void setTracing(int word) {
        TRACE_SWITCH.putInt(0, word);
    }

    private boolean status;
    private boolean booleanResult;
    private int errCode;
    private String resultString;

    public void setStatus(boolean status) {
        this.status = status;
    }

    public void setBooleanResult(boolean booleanResult) {
        this.booleanResult = booleanResult;
    }

    public void setTKVErrCode(int errCode) {
        this.errCode = errCode;
    }

    public void setTKVResultString(String resultString) {
        this.resultString = resultString;
    }

    public String reports() {
        return "status " + status + "|answer " + booleanResult + "|code " + errCode + "|text " + resultString;
    }
}
