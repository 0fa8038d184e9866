package velmar.qen.mgmt.nativesystem;

import java.util.ArrayList;
import java.util.List;

/** A result object that records every report, in order. */
final class Recorder extends TKVResult {
    private final List<String> reports = new ArrayList<>();
    private final List<String> lines = new ArrayList<>();

    List<String> reports() {
        return reports;
    }

    List<String> lines() {
        return lines;
    }

    @Override
    public void setStatus(boolean status) {
        super.setStatus(status);
        reports.add("status " + status);
    }

    @Override
    public void setBooleanResult(boolean answer) {
        super.setBooleanResult(answer);
        reports.add("answer " + answer);
    }

    @Override
    public void setTKVErrCode(int code) {
        super.setTKVErrCode(code);
        reports.add("code " + code);
    }

    @Override
    public void setTKVResultString(String text) {
        super.setTKVResultString(text);
        reports.add("text " + text);
    }

    @Override
    public void trace(String line) {
        lines.add(line);
    }
}
