import velmar.qen.mgmt.registry.Registry;

/** A program of a user's own on the installed jar: reads what the C program wrote. */
public final class Consumer {
    public static void main(String[] arguments) {
        try (Registry registry = Registry.open()) {
            System.out.println(registry.getText("greeting"));
        }
    }
}
