package velmar.qen.mgmt.nativesystem;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.List;
import java.util.Map;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.junit.jupiter.api.MethodOrderer;
import org.junit.jupiter.api.Order;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestMethodOrder;

/** Calls every native method with null and zero for every argument, in a JVM of its own that has had no session. */
@TestMethodOrder(MethodOrderer.OrderAnnotation.class)
class AnyArgumentTest {
    /** Arguments to try for a parameter, by its type; the first is null or zero. */
    private static final Map<Class<?>, List<Object>> CANDIDATES = Map.of(
            int.class, List.of(0, -1, 1, 3, Integer.MAX_VALUE, Integer.MIN_VALUE),
            boolean.class, List.of(false, true),
            String.class, Arrays.asList(null, "", "a", "any.argument", ".", "\u0000", "\ud800", "x".repeat(100_000)),
            String[].class, Arrays.asList(null, new String[0], new String[] {null}, new String[] {"", "a", "\udc00"}));

    private final TKVNative tkv = new TKVNative();

    private static List<Method> natives() {
        return Arrays.stream(TKVNative.class.getDeclaredMethods())
                .filter(method -> Modifier.isNative(method.getModifiers()))
                .sorted(Comparator.comparing(Method::getName)).toList();
    }

    /** Returns the methods that neither open nor close the session. */
    private static List<Method> calls() {
        return natives().stream()
                .filter(method -> !List.of("initializeTKVLevel", "terminateTKV").contains(method.getName())).toList();
    }

    /** Makes a call and returns its report. */
    private Recorder call(Method method, Object[] arguments) {
        Recorder result = new Recorder();
        arguments[arguments.length - 1] = result;
        try {
            method.invoke(tkv, arguments);
            arguments[arguments.length - 1] = null;
            method.invoke(tkv, arguments);
            arguments[arguments.length - 1] = "a result object without any of the methods";
            method.invoke(tkv, arguments);
        } catch (ReflectiveOperationException e) {
            throw new AssertionError(method.getName() + Arrays.toString(arguments), e.getCause());
        }
        return result;
    }

    private static Object[] emptyArguments(Method method) {
        Object[] arguments = new Object[method.getParameterCount()];
        for (int i = 0; i < arguments.length - 1; i++) {
            arguments[i] = CANDIDATES.get(method.getParameterTypes()[i]).get(0);
        }
        return arguments;
    }

    /** Returns what each method reports for null and zero, in a line for each method. */
    private String reportsToNothing() {
        return calls().stream().map(method -> method.getName() + " " + call(method, emptyArguments(method)).reports())
                .collect(Collectors.joining("\n"));
    }

    /** Tries each candidate for one argument after the other; the others are null or zero. */
    private void callWithEachCandidate() {
        for (Method method : calls()) {
            for (int i = 0; i < method.getParameterCount() - 1; i++) {
                for (Object candidate : CANDIDATES.get(method.getParameterTypes()[i])) {
                    Object[] arguments = emptyArguments(method);
                    arguments[i] = candidate;
                    List<String> reports = call(method, arguments).reports();
                    assertTrue(!reports.isEmpty(), () -> method.getName() + Arrays.toString(arguments));
                }
            }
        }
    }

    private static final String WITHOUT_SESSION = """
            closeKey [status true]
            copyRecurse [status false, code 0]
            createAndSetKeyValue [status false, code 1]
            createKey [status false, code 0]
            deleteKey [status false, code 0]
            getGroupName [status false, code 1]
            getKeyValue [status false, code 1]
            getKeyValues [status false, code 1]
            getPatchLevel [status false, code 1]
            getTKVBackupLocation [status false, code 1]
            getUserName [status false, code 1]
            keyExists [status false, code 0]
            listSubKeys [status false, code 0]
            moveKey [status false, code 0]
            setKeyValue [status false, code 1]
            setKeyValues [status false, code 1]
            setTypeKeyValue [status false, code 1]
            setZUVEDDependencies [status false, code 1]""";

    private void assertNoSession() {
        assertEquals(WITHOUT_SESSION, reportsOfThoseThatNeedASession());
        callWithEachCandidate();
        assertEquals(WITHOUT_SESSION, reportsOfThoseThatNeedASession());
    }

    private String reportsOfThoseThatNeedASession() {
        List<String> needNone = List.of("checkTKVStorageType", "getTKVLocations", "isCluster", "openKey");
        return reportsToNothing().lines().filter(line -> needNone.stream().noneMatch(line::startsWith))
                .collect(Collectors.joining("\n"));
    }

    @Test
    @Order(1)
    void thereAreTwentyFourMethods() {
        assertEquals(24, natives().size());
    }

    @Test
    @Order(2)
    void beforeTheSession() {
        assertNoSession();
    }

    @Test
    @Order(3)
    void nullNamesWithinASession() {
        openSession();
        assertEquals("""
                checkTKVStorageType [text TKV-0013, status false]
                closeKey [status true]
                copyRecurse [status false, code 0]
                createAndSetKeyValue [status false, code 1]
                createKey [status false, code 0]
                deleteKey [status false, text TKV-0013]
                getGroupName [status false, code 1]
                getKeyValue [status false, text TKV-0013]
                getKeyValues [status false, text TKV-0013]
                getPatchLevel [status true]
                getTKVBackupLocation [status true]
                getTKVLocations [status true, answer SHARED]
                getUserName [status false, code 1]
                isCluster [status true, answer SHARED]
                keyExists [status false, text TKV-0013]
                listSubKeys [status false]
                moveKey [status false, code 0]
                openKey [status false, text TKV-0013]
                setKeyValue [status false, code 1]
                setKeyValues [status false, code 1]
                setTypeKeyValue [status false, code 1]
                setZUVEDDependencies [status true]""".replace("SHARED", String.valueOf(Configuration.onCluster())),
                     reportsInOrder());
        endSession();
    }

    /** Calls each method right after a successful call, so that no text of an earlier failure is left. */
    private String reportsInOrder() {
        List<String> lines = new ArrayList<>();
        for (Method method : calls()) {
            Reports.done(r -> tkv.keyExists("", r));
            List<String> reports = call(method, emptyArguments(method)).reports();
            lines.add(method.getName() + " "
                    + reports.stream().map(report -> report.replaceFirst("(TKV-\\d+): .*", "$1")).toList());
            Reports.assertDone(r -> tkv.openKey("", r));
        }
        return String.join("\n", lines);
    }

    @Test
    @Order(4)
    void everyArgumentWithinASession() {
        openSession();
        callWithEachCandidate();
        Reports.assertDone(r -> tkv.openKey("", r));
        callWithEachCandidate();
        for (int level : new int[] {0, -1, Integer.MIN_VALUE, Integer.MAX_VALUE}) {
            tkv.initializeTKVLevel(level, new Recorder());
            tkv.initializeTKVLevel(level, null);
        }
        endSession();
    }

    @Test
    @Order(5)
    void afterTheSession() {
        openSession();
        Reports.assertDone(r -> tkv.openKey("", r));
        endSession();
        assertNoSession();
        tkv.terminateTKV(null);
        Stream.of(1, 2).forEach(time -> endSession());
    }

    private void openSession() {
        Reports.assertDone(r -> tkv.initializeTKVLevel(0, r));
    }

    private void endSession() {
        Reports.assertDone(tkv::terminateTKV);
    }
}
