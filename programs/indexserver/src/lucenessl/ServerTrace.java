package lucenessl;

import java.io.File;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.OutputStreamWriter;
import java.io.PrintWriter;
import java.nio.charset.StandardCharsets;
import java.text.SimpleDateFormat;
import java.util.Date;

/**
 * The server's trace: one text line per event in a file of the trace
 * directory, at three levels. NONE keeps only what always matters (start,
 * end, failures), NORMAL adds the links and the index operations, VERBOSE
 * every command. Any thread may write.
 */
final class ServerTrace {
    static final int NONE = 0;
    static final int NORMAL = 1;
    static final int VERBOSE = 2;

    private final PrintWriter out;
    private final SimpleDateFormat time = new SimpleDateFormat("yyMMdd-HH:mm:ss.SSS");
    private volatile int level;

    /** A trace into `file`; with a null file, or one that cannot be opened, into standard error. */
    ServerTrace(File file, int level) {
        PrintWriter writer = null;
        if (file != null) {
            try {
                writer = new PrintWriter(new OutputStreamWriter(new FileOutputStream(file, true), StandardCharsets.UTF_8));
            } catch (IOException e) {
                System.err.println("Cannot open trace file " + file + ": " + e.getMessage());
            }
        }
        out = writer != null ? writer : new PrintWriter(new OutputStreamWriter(System.err, StandardCharsets.UTF_8));
        this.level = level;
    }

    /** NONE, NORMAL or VERBOSE; -1 for another word. */
    static int level(String word) {
        switch (word) {
        case "NONE":
            return NONE;
        case "NORMAL":
            return NORMAL;
        case "VERBOSE":
            return VERBOSE;
        default:
            return -1;
        }
    }

    void setLevel(int level) {
        this.level = level;
    }

    boolean on(int wanted) {
        return wanted <= level;
    }

    void always(String text) {
        write("A", text);
    }

    void normal(String text) {
        if (on(NORMAL))
            write("N", text);
    }

    void verbose(String text) {
        if (on(VERBOSE))
            write("V", text);
    }

    private synchronized void write(String mark, String text) {
        out.println(time.format(new Date()) + " " + mark + " [" + Thread.currentThread().getName() + "] " + text);
        out.flush();
    }
}
