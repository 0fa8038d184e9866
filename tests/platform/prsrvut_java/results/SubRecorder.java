package results;

/** A subclass that takes some reports its own way. */
public class SubRecorder extends Recorder {
    @Override
    public void setStatus(boolean status) {
        reports.add("own status " + status);
    }
}
