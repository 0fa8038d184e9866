package results;

/** An unrelated class that has the methods, including private ones. */
public final class Other {
    private String reports = "";

    private void setStatus(boolean status) {
        reports += "other status " + status;
    }

    public String reports() {
        return reports;
    }
}
