package lucenessl;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertTrue;
import static org.junit.Assert.fail;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;

import org.junit.Test;

public class CommandReaderTest {
    private static CommandReader reader(String text) {
        return new CommandReader(new ByteArrayInputStream(text.getBytes(StandardCharsets.UTF_8)));
    }

    /** A stream that hands out one byte a read, as a slow link might. */
    private static InputStream trickle(String text) {
        byte[] bytes = text.getBytes(StandardCharsets.UTF_8);
        return new InputStream() {
            int next;

            @Override
            public int read() {
                return next < bytes.length ? bytes[next++] & 0xff : -1;
            }

            @Override
            public int read(byte[] b, int off, int len) {
                if (next >= bytes.length)
                    return -1;
                b[off] = bytes[next++];
                return 1;
            }
        };
    }

    @Test
    public void readsClausesTagsEscapesAndTheQueuedFlagInWholeOrByteByByte() throws IOException {
        String text = " IA( Seq(\"42\") , Fd(K,\"pa\\\"th\",\"c:\\\\x, (y) é\"),Re(SP5M9,\"a\"),ESO) ;NP(Seq(\"43\"));";
        for (CommandReader reader : new CommandReader[] {reader(text), new CommandReader(trickle(text))}) {
            Command add = reader.next();
            assertEquals("IA", add.name);
            assertEquals(42, add.sequence);
            assertTrue(add.queued);
            Command.Clause field = add.clauses.get(0);
            assertEquals("K", field.tag());
            assertEquals("pa\"th", field.quoted().get(0));
            assertEquals("c:\\x, (y) é", field.quoted().get(1));
            assertEquals("SP5M9", add.clauses.get(1).tag());
            Command noop = reader.next();
            assertEquals("NP", noop.name);
            assertEquals(43, noop.sequence);
            assertTrue(!noop.queued && noop.clauses.isEmpty());
            assertNull(reader.next());
        }
    }

    @Test
    public void refusesWhatIsNotACommand() throws IOException {
        String[] broken = {
            "IA(Seq(\"x\"));", "IA(Seq(\"1\"),Fd(\"a\",\"b\"));junk", "IA(Seq(\"1\"),Fd(\"a);", "IA(Seq(\"1\"),XYZ);",
            "IA(Seq(\"1\") Fd(\"a\"));", "(Seq(\"1\"));", "IA(Seq(\"1\"),Fd(a\"b\"));",
        };
        for (String text : broken) {
            CommandReader reader = reader(text);
            try {
                while (reader.next() != null) {
                }
                fail("read as commands: " + text);
            } catch (CommandReader.SyntaxException expected) {
                // the link would be closed here
            }
        }
    }
}
