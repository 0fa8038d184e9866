package velmar.qen.mgmt.registry;

import java.util.Set;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import velmar.qen.mgmt.nativesystem.TKVResult;

/**
 * The report of a single native call. A call has failed if its status is false, and also if it delivered a code or a
 * text before a status of true.
 */
class Report extends TKVResult {
    private static final Pattern CODE_OF_TEXT = Pattern.compile("^TKV-(\\d{4}): ");

    /** Messages of the native methods themselves. */
    private static final String BRIDGE_EXISTS = "TKV_KEY_ALREADY_EXISTS";
    private static final String BRIDGE_TOO_LONG = "TKV_VALUE_LIST_TOO_LONG";
    private static final String BRIDGE_INVALID = "TKV_VALUE_LIST_INVALID";

    private int failures;
    private boolean coded;
    private String firstText;

    @Override
    public void setTKVErrCode(int errCode) {
        super.setTKVErrCode(errCode);
        failures++;
        coded = true;
    }

    @Override
    public void setTKVResultString(String resultString) {
        super.setTKVResultString(resultString);
        failures++;
        if (firstText == null) {
            firstText = resultString;
        }
    }

    boolean failed() {
        return !getStatus() || failures > 0;
    }

    /** Returns whether the security of a key could not be determined; only that failure is reported twice. */
    boolean failedForSecurity() {
        return failures > 1;
    }

    /** Returns whether the failure is about the name of a key, which may be either of the two that a call names. */
    boolean isAboutName() {
        return Set.of(ResultCode.NO_SUCH_KEY, ResultCode.INVALID_NAME, ResultCode.KEY_EXISTS)
                .contains(code());
    }

    /** Returns the first message, which is the closest to the cause; null if none was delivered. */
    String text() {
        return firstText;
    }

    /** Returns the exception for the failure. */
    RegistryException exception(String key) {
        if (firstText == null && coded && getTKVErrCode() <= 1) {
            return new RegistryClosedException("the native session was ended by another user of TKVNative");
        }
        if (firstText == null) {
            return RegistryException.saying(code(), key, "the registry reported no reason");
        }
        return switch (firstText) {
            case BRIDGE_EXISTS -> RegistryException.saying(code(), key, "key '" + key + "' exists");
            case BRIDGE_TOO_LONG ->
                    RegistryException.saying(code(), key, "the list for key '" + key + "' needs more than 8192 bytes");
            default -> RegistryException.of(code(), key, firstText);
        };
    }

    private int code() {
        if (firstText == null) {
            return coded ? getTKVErrCode() : ResultCode.UNKNOWN;
        }
        Matcher code = CODE_OF_TEXT.matcher(firstText);
        if (code.find()) {
            return Integer.parseInt(code.group(1));
        }
        return switch (firstText) {
            case BRIDGE_EXISTS -> ResultCode.KEY_EXISTS;
            case BRIDGE_TOO_LONG -> ResultCode.VALUE_TOO_LARGE;
            case BRIDGE_INVALID -> ResultCode.INVALID_ARGUMENT;
            default -> ResultCode.UNKNOWN;
        };
    }
}
