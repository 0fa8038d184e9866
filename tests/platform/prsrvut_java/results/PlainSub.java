package results;

import velmar.qen.mgmt.nativesystem.TKVResult;

/** A subclass that inherits every setter, and has a field and a setter of the same names as its superclass. */
public class PlainSub extends TKVResult {
    private boolean status = true;

    public void setStatus(int status) {
        this.status = status != 0;
    }

    public boolean ownStatus() {
        return status;
    }
}
