package velmar.qen.mgmt.nativesystem;

import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.function.Consumer;
import java.util.logging.Handler;
import java.util.logging.LogRecord;
import java.util.logging.Logger;

/** Collects what goes to the registry's logger, which writes nothing elsewhere meanwhile. */
public final class LoggedLines extends Handler implements AutoCloseable {
    private final Logger logger = Logger.getLogger("velmar.qen.mgmt.tkv");
    private final List<String> lines = new CopyOnWriteArrayList<>();
    private final Consumer<String> reaction;

    public LoggedLines() {
        this(line -> { });
    }

    /** Calls {@code reaction}, which may throw, with each line. */
    public LoggedLines(Consumer<String> reaction) {
        this.reaction = reaction;
        logger.addHandler(this);
        logger.setUseParentHandlers(false);
    }

    public List<String> lines() {
        return lines;
    }

    @Override
    public void publish(LogRecord line) {
        lines.add(line.getMessage());
        reaction.accept(line.getMessage());
    }

    @Override
    public void flush() {}

    @Override
    public void close() {
        logger.removeHandler(this);
        logger.setUseParentHandlers(true);
    }
}
