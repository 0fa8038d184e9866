package results;

/** A subclass that overrides the handling of some reports. */
public class SubRecorder extends Recorder {
    @Override
    public void setStatus(boolean status) {
        reports.add("own status " + status);
    }
}
