package lucenessl;

import java.io.File;
import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.channels.FileChannel;
import java.nio.channels.FileLock;
import java.nio.channels.OverlappingFileLockException;
import java.nio.file.NoSuchFileException;
import java.nio.file.StandardOpenOption;

/**
 * The search-index server: listens on the loopback address and serves each
 * link on a thread of its own, indexing and searching with Lucene.
 *
 * <pre>
 * lucenessl.SocketServer -p PORT [-t TRACE_DIRECTORY] [-l NONE|NORMAL|VERBOSE] [-a ALIVE_MONITOR]
 * </pre>
 *
 * The alive monitor is a file the parent keeps locked for as long as it
 * lives; the server tries the lock twice a second, and when it gets it the
 * parent has gone, and the server commits its indexes and ends. A client's
 * Quit does the same.
 *
 * Exit codes: 0 done, 1 could not serve (the port is taken), 2 usage.
 */
public final class SocketServer {
    static final int MONITOR_INTERVAL_MS = 500;

    private final int port;
    private final ServerTrace trace;
    private final IndexStore store;
    private final File monitor;
    private ServerSocket listener;
    private volatile boolean stopping;

    SocketServer(int port, ServerTrace trace, File monitor) {
        this.port = port;
        this.trace = trace;
        this.store = new IndexStore(trace);
        this.monitor = monitor;
    }

    public static void main(String[] args) {
        int port = -1;
        String traceDirectory = null;
        int level = ServerTrace.NORMAL;
        File monitor = null;
        for (int i = 0; i < args.length; ++i) {
            String option = args[i];
            if (option.equals("-h") || option.equals("--help")) {
                usage();
                System.exit(0);
            }
            if (i + 1 >= args.length || !option.matches("-[ptla]")) {
                // Further arguments are the application's; the server has none.
                continue;
            }
            String value = args[++i];
            switch (option) {
            case "-p":
                try {
                    port = Integer.parseInt(value);
                } catch (NumberFormatException e) {
                    port = -1;
                }
                break;
            case "-t":
                traceDirectory = value;
                break;
            case "-l":
                level = ServerTrace.level(value);
                break;
            default:
                monitor = new File(value);
                break;
            }
        }
        if (port < 0 || port > 65535 || level < 0) {
            usage();
            System.exit(2);
        }
        File traceFile = null;
        if (traceDirectory != null) {
            File directory = new File(traceDirectory);
            directory.mkdirs();
            traceFile = new File(directory, "SocketServer-" + port + ".log");
        }
        ServerTrace trace = new ServerTrace(traceFile, level);
        System.exit(new SocketServer(port, trace, monitor).serve());
    }

    private static void usage() {
        System.err.println("Usage: lucenessl.SocketServer -p PORT [-t TRACE_DIRECTORY] [-l NONE|NORMAL|VERBOSE]"
                           + " [-a ALIVE_MONITOR]");
    }

    int serve() {
        try {
            listener = new ServerSocket();
            listener.bind(new InetSocketAddress(InetAddress.getLoopbackAddress(), port), 50);
        } catch (IOException e) {
            trace.always("Cannot listen on port " + port + ": " + e.getMessage());
            return 1;
        }
        trace.always("Listening on " + listener.getLocalSocketAddress() + (monitor != null ? ", alive monitor " + monitor : ""));
        if (monitor != null) {
            Thread watcher = new Thread(this::watchParent, "monitor");
            watcher.setDaemon(true);
            watcher.start();
        }
        int links = 0;
        while (!stopping) {
            Socket socket;
            try {
                socket = listener.accept();
            } catch (IOException e) {
                if (!stopping)
                    trace.always("Accept failed: " + e.getMessage());
                break;
            }
            Thread link = new Thread(() -> serveLink(socket), "link-" + ++links);
            link.setDaemon(true);
            link.start();
        }
        stop("the listener closed");
        return 0;
    }

    private void serveLink(Socket socket) {
        trace.normal("Link from " + socket.getRemoteSocketAddress());
        Session session = null;
        boolean quit = false;
        try {
            socket.setTcpNoDelay(true);
            CommandReader reader = new CommandReader(socket.getInputStream());
            ReplyWriter writer = new ReplyWriter(socket.getOutputStream());
            session = new Session(store, trace, writer);
            for (;;) {
                Command command = reader.next();
                if (command == null)
                    break;
                if (!session.handle(command)) {
                    quit = command.name.equals("Quit");
                    writer.flush();
                    break;
                }
                // Replies go out when no further command waits to be read, so
                // that a run of commands is answered in few writes.
                if (!reader.hasBuffered())
                    writer.flush();
            }
        } catch (CommandReader.SyntaxException e) {
            trace.always("Not a command, the link is closed: " + e.getMessage());
        } catch (IOException e) {
            trace.normal("Link ended: " + e.getMessage());
        } finally {
            if (session != null)
                session.close();
            try {
                socket.close();
            } catch (IOException e) {
                trace.normal("Close failed: " + e.getMessage());
            }
            trace.normal("Link closed");
        }
        if (quit)
            stop("a client asked to quit");
    }

    /** Commits and closes every index, and ends the process. */
    private synchronized void stop(String why) {
        if (!stopping) {
            stopping = true;
            trace.always("Stopping: " + why);
        }
        try {
            listener.close();
        } catch (IOException e) {
            trace.normal("Closing the listener failed: " + e.getMessage());
        }
        store.closeAll();
        trace.always("Stopped");
        System.exit(0);
    }

    private void watchParent() {
        for (;;) {
            if (parentGone()) {
                stop("the alive monitor is free, the parent has gone");
                return;
            }
            try {
                Thread.sleep(MONITOR_INTERVAL_MS);
            } catch (InterruptedException e) {
                return;
            }
        }
    }

    /** True when the monitor's lock can be taken, or the file has gone with its owner. */
    private boolean parentGone() {
        try (FileChannel channel = FileChannel.open(monitor.toPath(), StandardOpenOption.WRITE)) {
            FileLock lock = channel.tryLock(0, 1, false);
            if (lock == null)
                return false;
            lock.release();
            return true;
        } catch (NoSuchFileException e) {
            return true;
        } catch (OverlappingFileLockException e) {
            return false;
        } catch (IOException e) {
            trace.always("Cannot try the alive monitor " + monitor + ": " + e.getMessage());
            return false;
        }
    }
}
