package results;

/** A result object whose methods all throw. */
public final class Thrower {
    public void setStatus(boolean status) {
        throw new IllegalStateException("setStatus");
    }

    public void setBooleanResult(boolean value) {
        throw new IllegalStateException("setBooleanResult");
    }

    public void setTKVErrCode(int code) {
        throw new IllegalStateException("setTKVErrCode");
    }

    public void trace(String line) {
        throw new IllegalStateException("trace");
    }

    public String reports() {
        return "";
    }
}
