package velmar.qen.mgmt.registry;

import java.util.regex.Matcher;
import java.util.regex.Pattern;
import velmar.qen.mgmt.nativesystem.TKVNative;
import velmar.qen.mgmt.nativesystem.TKVResult;

/**
 * A native copy, read for its outcome. Its status may end true after a failure, and the last step, the security of the
 * copied key itself, shows in a trace line only, so tracing is on during the copy and the lines come here.
 */
final class TreeCopy extends Report {
    private static final Pattern LAST_STEP =
            Pattern.compile("^copyRecurse: prtkv_set_key_security for key \\[.*], rc=(-?\\d+)\n$", Pattern.DOTALL);

    private int lastStep;

    /** Copies onto a key that exists; throws when any step failed. */
    static void run(TKVNative natives, String source, String target, CopyOwner owner) {
        TreeCopy copy = new TreeCopy();
        holdTracing(true);
        try {
            natives.copyRecurse(source, target, owner.type(), copy);
        } finally {
            holdTracing(false);
        }
        copy.check(source, target);
    }

    /** Throws when any step failed. */
    void check(String source, String target) {
        if (lastStep != 0) {
            throw RegistryException.saying(lastStep, target,
                    "the security of key '" + target + "' could not be set after the copy");
        }
        if (failed()) {
            // The one failure without the registry's text is the bridge's own limit.
            throw text() != null ? exception(source) : RegistryException.saying(ResultCode.INVALID_NAME, source,
                    "a name below key '" + source + "' is too long to be copied");
        }
    }

    @Override
    public void trace(String line) {
        Matcher step = LAST_STEP.matcher(line);
        if (step.find()) {
            lastStep = Integer.parseInt(step.group(1));
        }
        if (TKVResult.isTracing()) {
            super.trace(line);
        }
    }
}
