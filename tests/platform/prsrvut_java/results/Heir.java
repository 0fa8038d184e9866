package results;

/** Inherits overridden setters, and overrides the rest. */
public final class Heir extends OverridingSub {
    private boolean isTold;

    @Override
    public void setBooleanResult(boolean booleanResult) {
        isTold = booleanResult;
    }

    @Override
    public String reports() {
        return super.reports() + "|told " + isTold;
    }
}
