package velmar.qen.mgmt.nativesystem;

import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.logging.Handler;
import java.util.logging.LogRecord;
import java.util.logging.Logger;

/** Takes what goes to the logger of the registry, which writes nothing else meanwhile. */
public final class LoggedLines extends Handler implements AutoCloseable {
    private final Logger logger = Logger.getLogger("velmar.qen.mgmt.tkv");
    private final List<String> lines = new CopyOnWriteArrayList<>();

    public LoggedLines() {
        logger.addHandler(this);
        logger.setUseParentHandlers(false);
    }

    public List<String> lines() {
        return lines;
    }

    @Override
    public void publish(LogRecord line) {
        lines.add(line.getMessage());
    }

    @Override
    public void flush() {}

    @Override
    public void close() {
        logger.removeHandler(this);
        logger.setUseParentHandlers(true);
    }
}
