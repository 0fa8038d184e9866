package results;

import java.util.ArrayList;
import java.util.List;

/** A result object that remembers what was reported. */
public class Recorder {
    protected final List<String> reports = new ArrayList<>();

    public void setStatus(boolean status) {
        reports.add("status " + status);
    }

    public void setBooleanResult(boolean value) {
        reports.add("answer " + value);
    }

    public void setTKVErrCode(int code) {
        reports.add("code " + code);
    }

    public void setTKVResultString(String text) {
        reports.add("text " + text);
    }

    public void trace(String line) {
        reports.add("trace " + line);
    }

    public int counted(int number) {
        reports.add("counted " + number);
        return number;
    }

    public void two(int one, int other) {
        reports.add("two " + one + " " + other);
    }

    public String reports() {
        return String.join("|", reports);
    }
}
