package velmar.qen.mgmt.registry;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.charset.StandardCharsets;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;

/**
 * Stands between a client and an etcd member. From the moment when a client has sent a certain text, it passes on what
 * clients send but nothing of what the member answers.
 */
final class SilentProxy implements AutoCloseable {
    private final ServerSocket listener = new ServerSocket(0, 50, InetAddress.getLoopbackAddress());
    private final Queue<Socket> sockets = new ConcurrentLinkedQueue<>();
    private final String host;
    private final int port;
    private final String text;
    private volatile boolean silent;

    /** Stands before the member at a location such as etcd://127.0.0.1:2379. */
    SilentProxy(String location, String text) throws IOException {
        String[] parts = location.substring("etcd://".length()).split(":");
        host = parts[0];
        port = Integer.parseInt(parts[1]);
        this.text = text;
        start(this::accept);
    }

    /** The location of the member as seen through this proxy. */
    String location() {
        return "etcd://127.0.0.1:" + listener.getLocalPort();
    }

    private interface Work {
        void run() throws IOException;
    }

    private static void start(Work work) {
        Thread thread = new Thread(() -> {
            try {
                work.run();
            } catch (IOException e) {
                // A socket was closed.
            }
        });
        thread.setDaemon(true);
        thread.start();
    }

    private void accept() throws IOException {
        while (true) {
            Socket client = listener.accept();
            sockets.add(client);
            Socket member = new Socket(host, port);
            sockets.add(member);
            start(() -> passOn(client, member, true));
            start(() -> passOn(member, client, false));
        }
    }

    private void passOn(Socket source, Socket target, boolean fromClient) throws IOException {
        InputStream in = source.getInputStream();
        OutputStream out = target.getOutputStream();
        byte[] bytes = new byte[1 << 16];
        for (int count = in.read(bytes); count >= 0; count = in.read(bytes)) {
            if (fromClient && new String(bytes, 0, count, StandardCharsets.ISO_8859_1).contains(text)) {
                silent = true;
            }
            if (fromClient || !silent) {
                out.write(bytes, 0, count);
            }
        }
        target.shutdownOutput();
    }

    @Override
    public void close() throws IOException {
        listener.close();
        for (Socket socket : sockets) {
            socket.close();
        }
    }
}
