package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;

/** Result objects of classes other than {@link TKVResult}. */
class ForeignResultTest extends OpenSession {
    /** Has the methods that native code calls, and nothing else. */
    public static final class Foreign {
        private final List<Object> told = new ArrayList<>();

        public void setStatus(boolean status) {
            told.add(status);
        }

        public void setBooleanResult(boolean answer) {
            told.add(answer);
        }

        public void setTKVErrCode(int code) {
            told.add(code);
        }

        public void setTKVResultString(String text) {
            told.add(text);
        }

        public void trace(String line) {
            told.add(line);
        }
    }

    /** Has methods neither for the text nor for trace lines. */
    public static final class Sparse {
        private boolean status;

        public void setStatus(boolean newStatus) {
            status = newStatus;
        }
    }

    /** Overrides one setter and inherits the others. */
    static final class StatusRecorder extends TKVResult {
        private final List<Boolean> statuses = new ArrayList<>();

        @Override
        public void setStatus(boolean status) {
            statuses.add(status);
        }
    }

    /** Throws when it receives a text. */
    static final class Throwing extends TKVResult {
        @Override
        public void setTKVResultString(String text) {
            throw new UnsupportedOperationException(text);
        }
    }

    /** Throws from every method, a different exception each time. */
    public static final class AlwaysThrowing {
        private int thrown;

        private void fail() {
            thrown++;
            throw new UnsupportedOperationException(String.valueOf(thrown));
        }

        public void setStatus(boolean status) {
            fail();
        }

        public void setBooleanResult(boolean answer) {
            fail();
        }

        public void setTKVErrCode(int code) {
            fail();
        }

        public void setTKVResultString(String text) {
            fail();
        }

        public void trace(String line) {
            fail();
        }
    }

    @Test
    void anyObjectWithTheMethodsTakesReports() {
        Foreign result = new Foreign();
        assertFalse(tkv.keyExists(top + "absent", result));
        tkv.openKey(top + "absent", result);
        tkv.isCluster(result);
        assertEquals(List.of(true, false, "TKV-0004: key '" + top + "absent' does not exist", true),
                     result.told.subList(0, 4));
        assertEquals(5, result.told.size());
    }

    @Test
    void anyObjectWithTheMethodsTakesTraceLines() {
        Foreign result = new Foreign();
        TKVResult.setTracing(true);
        tkv.openKey("", result);
        TKVResult.setTracing(false);
        assertEquals(List.of("openKey: prtkv_open_key retval = 0\n", true), result.told);
    }

    @Test
    void aMethodThatAnObjectDoesNotHaveIsNotCalled() {
        Sparse result = new Sparse();
        TKVResult.setTracing(true);
        tkv.openKey("", result);
        assertTrue(result.status);
        tkv.openKey("absent", result);
        assertFalse(result.status);
        TKVResult.setTracing(false);
    }

    @Test
    void aSubclassReceivesTheCallsOfTheSettersThatItOverrides() {
        StatusRecorder result = new StatusRecorder();
        tkv.openKey(top + "absent", result);
        tkv.isCluster(result);
        assertEquals(List.of(false, true), result.statuses);
        assertFalse(result.getStatus());
        assertEquals("TKV-0004: key '" + top + "absent' does not exist", result.getTKVResultString());
    }

    @Test
    void anExceptionOfTheObjectReachesTheCaller() {
        assertThrows(UnsupportedOperationException.class, () -> tkv.openKey("absent", new Throwing()));
        assertThrows(UnsupportedOperationException.class, () -> tkv.deleteKey("", true, new Throwing()));
        assertNull(get(parent()));
    }

    /** The run fails if the JVM's checks find a JNI call made with an exception pending. */
    @Test
    void everyMethodRunsToItsEndAndThrowsTheFirstException() throws IllegalAccessException {
        createTree();
        TKVResult.setTracing(true);
        try {
            for (Method method : TKVNative.class.getDeclaredMethods()) {
                if (Modifier.isNative(method.getModifiers()) && !method.getName().equals("terminateTKV")) {
                    assertThrowsTheFirst(method);
                    Reports.assertDone(r -> tkv.openKey("", r));
                }
            }
        } finally {
            TKVResult.setTracing(false);
        }
        assertEquals("value", get(top + "new"), "the exceptions kept nothing from being done");
    }

    private void createTree() {
        Reports.assertDone(r -> tkv.setKeyValue(top + "source", "value", 3, "", null, null, r));
        Reports.assertDone(r -> tkv.createKey(top + "source.child", 3, "", null, null, r));
        Reports.assertDone(r -> tkv.setKeyValues(top + "source.list", new String[] {"a", "b"}, 3, "", null, null, r));
        Reports.assertDone(r -> tkv.createKey(top + "target", 3, "", null, null, r));
    }

    private void assertThrowsTheFirst(Method method) throws IllegalAccessException {
        AlwaysThrowing result = new AlwaysThrowing();
        Object[] arguments = new Object[method.getParameterCount()];
        for (int i = 0; i < arguments.length - 1; i++) {
            Class<?> type = method.getParameterTypes()[i];
            arguments[i] = type == int.class ? (Object) 3 : type == boolean.class ? (Object) false
                    : type == String[].class ? new String[] {"a", "b"} : top + "source";
        }
        switch (method.getName()) {
            case "copyRecurse", "moveKey" -> arguments[1] = top + "target";
            case "createAndSetKeyValue" -> {
                arguments[0] = top + "new";
                arguments[1] = "value";
                arguments[5] = arguments[6] = null;
            }
            default -> { }
        }
        arguments[arguments.length - 1] = result;
        try {
            method.invoke(tkv, arguments);
            throw new AssertionError(method.getName() + " threw nothing");
        } catch (InvocationTargetException e) {
            assertInstanceOf(UnsupportedOperationException.class, e.getCause(), method.getName());
            assertEquals("1", e.getCause().getMessage(), method.getName());
            assertTrue(result.thrown >= 1, method.getName());
        }
    }
}
