package results;

/** A class of no relation that has the methods, private ones too. */
public final class Other {
    private String reports = "";

    private void setStatus(boolean status) {
        reports += "other status " + status;
    }

    public String reports() {
        return reports;
    }
}
