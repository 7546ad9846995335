package lucenessl;

import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * Reads commands off the client's byte stream. The text is UTF-8 and has no
 * line structure; white space between the parts is allowed. Inside double
 * quotes a backslash takes the next character as it is ({@code \\}, {@code \"}).
 *
 * <p>Anything that is not a command ends the stream: there is no way to find
 * the start of the next command in text that does not follow the syntax, and
 * guessing could apply a command the client never meant.
 */
final class CommandReader {
    /** Longest command or clause name. */
    static final int MAXIMUM_NAME = 64;
    /** Largest command, in bytes. */
    static final int MAXIMUM_COMMAND = 64 * 1024 * 1024;

    /** Text that is not a command. */
    static final class SyntaxException extends IOException {
        private static final long serialVersionUID = 1L;

        SyntaxException(String message) {
            super(message);
        }
    }

    private final InputStream in;
    private final byte[] buffer = new byte[65536];
    private int position;
    private int limit;
    private int commandSize;
    private byte[] token = new byte[256];
    private int tokenSize;

    CommandReader(InputStream in) {
        this.in = in;
    }

    /** Whether a byte of the next command is here already, so that reading it will not wait. */
    boolean hasBuffered() throws IOException {
        return position < limit || in.available() > 0;
    }

    /** The next command, or null at the end of the stream before one began. */
    Command next() throws IOException {
        commandSize = 0;
        int c = skipSpace();
        if (c < 0)
            return null;
        Command command = new Command(readName(c, "command"));
        expect('(');
        c = skipSpace();
        if (c != ')') {
            for (;;) {
                readClause(command, c);
                c = skipSpace();
                if (c == ')')
                    break;
                if (c != ',')
                    throw syntax("expected ',' or ')' after clause", c);
                c = skipSpace();
            }
        }
        c = skipSpace();
        if (c != ';')
            throw syntax("expected ';'", c);
        return command;
    }

    private void readClause(Command command, int first) throws IOException {
        String name = readName(first, "clause");
        int c = skipSpace();
        if (c != '(') {
            if (c >= 0)
                unread();
            if (!name.equals("ESO"))
                throw new SyntaxException("Unknown flag " + name);
            command.queued = true;
            command.clauses.add(new Command.Clause(name, null));
            return;
        }
        List<Command.Value> values = new ArrayList<>();
        c = skipSpace();
        if (c != ')') {
            for (;;) {
                values.add(readValue(c));
                c = skipSpace();
                if (c == ')')
                    break;
                if (c != ',')
                    throw syntax("expected ',' or ')' after value", c);
                c = skipSpace();
            }
        }
        if (name.equals("Seq")) {
            if (values.size() != 1)
                throw new SyntaxException("Seq takes one value");
            try {
                command.sequence = Long.parseLong(values.get(0).text);
            } catch (NumberFormatException e) {
                throw new SyntaxException("Seq is not a number: " + values.get(0).text);
            }
            return;
        }
        command.clauses.add(new Command.Clause(name, values));
    }

    private Command.Value readValue(int first) throws IOException {
        tokenSize = 0;
        if (first == '"') {
            for (;;) {
                int c = read();
                if (c < 0)
                    throw new SyntaxException("end of stream inside a quoted value");
                if (c == '"')
                    break;
                if (c == '\\') {
                    c = read();
                    if (c < 0)
                        throw new SyntaxException("end of stream inside a quoted value");
                }
                append(c);
            }
            return new Command.Value(new String(token, 0, tokenSize, StandardCharsets.UTF_8), true);
        }
        int c = first;
        while (c >= 0 && c != ',' && c != ')') {
            if (c == '"' || c == '(' || c == ';')
                throw syntax("unexpected character in a bare value", c);
            append(c);
            c = read();
        }
        if (c < 0)
            throw new SyntaxException("end of stream inside a value");
        unread();
        String text = new String(token, 0, tokenSize, StandardCharsets.UTF_8).trim();
        if (text.isEmpty())
            throw new SyntaxException("empty bare value");
        return new Command.Value(text, false);
    }

    private String readName(int first, String what) throws IOException {
        StringBuilder name = new StringBuilder();
        int c = first;
        while (c >= 0 && (Character.isLetterOrDigit(c) || c == '_') && c < 128) {
            if (name.length() >= MAXIMUM_NAME)
                throw new SyntaxException(what + " name too long");
            name.append((char) c);
            c = read();
        }
        if (name.length() == 0)
            throw syntax("expected a " + what + " name", c);
        if (c >= 0)
            unread();
        return name.toString();
    }

    private void expect(int wanted) throws IOException {
        int c = skipSpace();
        if (c != wanted)
            throw syntax("expected '" + (char) wanted + "'", c);
    }

    private int skipSpace() throws IOException {
        int c;
        do
            c = read();
        while (c == ' ' || c == '\t' || c == '\r' || c == '\n');
        return c;
    }

    private void append(int c) {
        if (tokenSize == token.length)
            token = Arrays.copyOf(token, token.length * 2);
        token[tokenSize++] = (byte) c;
    }

    private int read() throws IOException {
        if (position == limit) {
            int n = in.read(buffer, 0, buffer.length);
            if (n <= 0)
                return -1;
            position = 0;
            limit = n;
        }
        if (++commandSize > MAXIMUM_COMMAND)
            throw new SyntaxException("command too large");
        return buffer[position++] & 0xff;
    }

    private void unread() {
        --position;
        --commandSize;
    }

    private static SyntaxException syntax(String message, int c) {
        return new SyntaxException(message + (c < 0 ? " at the end of the stream" : " at '" + (char) c + "'"));
    }
}
