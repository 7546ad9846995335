package lucenessl;

import java.io.BufferedOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.util.List;

/**
 * Writes replies: the command's short name, its sequence, a status, and for
 * a search hit its fields:
 * {@code IA(Seq("5"),St("T"));  IS(Seq("6"),St("T42"));  SM(Seq("6"),Fd("path","c:\\x"));}
 * A refused command's status is "FM" with the reason beside it. Quoted text
 * escapes backslashes and double quotes with a backslash.
 *
 * <p>Replies collect in a buffer; {@link #flush} sends them, which the
 * connection does whenever no further command is waiting to be read.
 */
final class ReplyWriter {
    private final OutputStream out;
    private final StringBuilder text = new StringBuilder(256);

    ReplyWriter(OutputStream out) {
        this.out = new BufferedOutputStream(out, 65536);
    }

    void success(Command command) throws IOException {
        status(command.name, command.sequence, "T");
    }

    void status(String name, long sequence, String status) throws IOException {
        start(name, sequence);
        text.append(",St(");
        quoted(status);
        text.append("));");
        write();
    }

    void refused(Command command, String reason) throws IOException {
        start(command.name, command.sequence);
        text.append(",St(\"FM\",");
        quoted(reason);
        text.append("));");
        write();
    }

    /** One search hit: name and value pairs. */
    void match(long sequence, List<String[]> fields) throws IOException {
        start("SM", sequence);
        for (String[] field : fields) {
            text.append(",Fd(");
            quoted(field[0]);
            text.append(',');
            quoted(field[1]);
            text.append(')');
        }
        text.append(");");
        write();
    }

    void flush() throws IOException {
        out.flush();
    }

    private void start(String name, long sequence) {
        text.setLength(0);
        text.append(name).append("(Seq(\"").append(sequence).append("\")");
    }

    private void quoted(String value) {
        text.append('"');
        for (int i = 0; i < value.length(); ++i) {
            char c = value.charAt(i);
            if (c == '\\' || c == '"')
                text.append('\\');
            text.append(c);
        }
        text.append('"');
    }

    private void write() throws IOException {
        out.write(text.toString().getBytes(StandardCharsets.UTF_8));
    }
}
