package results;

/** A subclass of a subclass that overrides one setter of each type. */
public class OverridingSub extends PlainSub {
    private String called = "";

    @Override
    public void setStatus(boolean status) {
        called += "status " + status + "|";
    }

    @Override
    public void setTKVErrCode(int errCode) {
        called += "code " + errCode + "|";
        super.setTKVErrCode(errCode + 1);
    }

    @Override
    public void setTKVResultString(String resultString) {
        called += "text " + resultString + "|";
    }

    @Override
    public String reports() {
        return called + super.reports();
    }
}
