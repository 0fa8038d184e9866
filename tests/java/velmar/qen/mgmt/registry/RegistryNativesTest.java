package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.ByteBuffer;
import java.util.List;
import java.util.Random;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** The native methods themselves, which check every argument. */
class RegistryNativesTest {
    private static final int INVALID_HANDLE = 3;

    @BeforeAll
    static void loadLibrary() {
        NativeLibrary.load();
    }

    private static List<Method> methods() {
        List<Method> all = Stream.of(RegistryNatives.class.getDeclaredMethods())
                .filter(method -> Modifier.isNative(method.getModifiers())).toList();
        all.forEach(method -> method.setAccessible(true));
        return all;
    }

    private static Object call(Method method, long handle, byte[] bytes)
            throws IllegalAccessException, InvocationTargetException {
        Object[] arguments = Stream.of(method.getParameterTypes())
                .map(type -> type == long.class ? handle : type == byte[].class ? bytes : null).toArray();
        return method.invoke(null, arguments);
    }

    @Test
    void nothingButPlainTypesCrosses() {
        assertTrue(methods().size() > 15);
        for (Method method : methods()) {
            for (Class<?> type : method.getParameterTypes()) {
                assertTrue(List.of(long.class, byte[].class, String.class).contains(type), method::toString);
            }
            boolean returnsMemory = method.getName().equals("stateMemory");
            assertTrue(List.of(void.class, returnsMemory ? ByteBuffer.class : byte[].class)
                               .contains(method.getReturnType()), method::toString);
        }
    }

    @Test
    void handlesThatAreNotOpenAreRecognized() throws IllegalAccessException, InvocationTargetException {
        for (long handle : new long[] {0, -1, 1L << 40, Long.MIN_VALUE, Long.MAX_VALUE}) {
            for (Method method : methods()) {
                if (method.getParameterTypes()[0] == long.class && method.getReturnType() == byte[].class) {
                    assertEquals(INVALID_HANDLE, Reply.code((byte[]) call(method, handle, null)), method::toString);
                }
            }
            assertNull(RegistryNatives.stateMemory(handle));
            RegistryNatives.unpinState(handle);
            RegistryNatives.endWalk(handle);
            RegistryNatives.endSnapshot(handle, handle);
            RegistryNatives.endWatch(handle, handle);
        }
    }

    @Test
    void missingAndRandomBytesAreRefused() throws IllegalAccessException, InvocationTargetException {
        Random random = new Random(1);
        byte[] reply = RegistryNatives.open(RegistryOptions.DEFAULTS.request());
        long handle = Reply.checked(reply, null).word64();
        for (Method method : methods()) {
            boolean takesBytes = List.of(method.getParameterTypes()).contains(byte[].class);
            for (int size = 0; takesBytes && size < 60; size++) {
                byte[] bytes = new byte[size];
                random.nextBytes(bytes);
                if (size > 8) {
                    bytes[0] = 1;  // no place to open; and no root that may be changed in security below
                }
                if (!method.getName().equals("changeSecurity")) {
                    assertNotEquals(0, Reply.code((byte[]) call(method, handle, bytes)), method::toString);
                }
            }
            if (takesBytes) {
                assertNotEquals(0, Reply.code((byte[]) call(method, handle, new byte[3])), method::toString);
            }
        }
        assertNull(RegistryNatives.close(handle));
        assertEquals(INVALID_HANDLE, Reply.code(RegistryNatives.close(handle)));
    }
}
