package velmar.qen.mgmt.registry;

import java.util.regex.Matcher;
import java.util.regex.Pattern;
import velmar.qen.mgmt.nativesystem.TKVNative;
import velmar.qen.mgmt.nativesystem.TKVResult;

/**
 * The report of a native copy. The status may be true after a failure, and the result of the last step, which sets the
 * security of the copied key itself, appears only in a trace line. Tracing is therefore on during the copy, and this
 * class reads the lines.
 */
final class TreeCopy extends Report {
    private static final Pattern LAST_STEP =
            Pattern.compile("^copyRecurse: prtkv_set_key_security for key \\[.*], rc=(-?\\d+)\n$", Pattern.DOTALL);

    private int lastStep;
    private boolean outOfMemory;

    /** Copies onto a key that exists. Throws if any step failed. */
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

    /** Throws if any step failed. */
    void check(String source, String target) {
        if (lastStep != 0) {
            throw RegistryException.saying(lastStep, target,
                    "the security of key '" + target + "' could not be set after the copy");
        }
        if (!failed()) {
            return;
        }
        if (text() != null) {
            throw exception(source);
        }
        // The bridge's own failures come without a message from the registry.
        throw outOfMemory
                ? RegistryException.saying(ResultCode.OUT_OF_MEMORY, source, "out of memory for the copy")
                : RegistryException.saying(ResultCode.INVALID_NAME, source,
                        "a name below key '" + source + "' is too long to be copied");
    }

    @Override
    public void trace(String line) {
        Matcher step = LAST_STEP.matcher(line);
        if (step.find()) {
            lastStep = Integer.parseInt(step.group(1));
        }
        outOfMemory |= line.equals("prsrvtkv_copy_recurse: NOT ENOUGH MEMORY");
        if (TKVResult.isTracing()) {
            super.trace(line);
        }
    }
}
