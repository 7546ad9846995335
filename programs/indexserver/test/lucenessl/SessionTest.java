package lucenessl;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.File;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

import org.junit.After;
import org.junit.Before;
import org.junit.Test;

public class SessionTest {
    private File directory;
    private IndexStore store;
    private ByteArrayOutputStream bytes;
    private ReplyWriter writer;
    private Session session;

    @Before
    public void open() throws IOException {
        directory = Files.createTempDirectory("sessiontest").toFile();
        store = new IndexStore(new ServerTrace(null, ServerTrace.NONE));
        bytes = new ByteArrayOutputStream();
        writer = new ReplyWriter(bytes);
        session = new Session(store, new ServerTrace(null, ServerTrace.NONE), writer);
        run("FO(Seq(\"1\"),De(\"name\"),Fd(\"name\",\"A7\"),Fd(\"size\",\"V2N\"),Fd(\"kind\",\"V4\"),"
            + "Fd(\"blob\",\"B\"),Fd(K,\"\",\"A1\"));"
            + "IO(Seq(\"2\"),In(\"" + directory.getPath() + "\"));");
        String[][] documents = {{"Alpha_Report.pdf", "10", "01"}, {"beta-notes.txt", "200", "02"},
                                {"gamma report.TXT", "3000", "02"}, {"delta.bin", "-5", "03"}};
        for (String[] d : documents)
            run("IA(Seq(\"3\"),Fd(\"name\",\"" + d[0] + "\"),Fd(\"size\",\"" + d[1] + "\"),Fd(\"kind\",\"" + d[2]
                + "\"),Fd(\"blob\",\"raw\"),ESO);");
    }

    @After
    public void close() throws IOException {
        session.close();
        store.closeAll();
        for (File file : directory.listFiles())
            file.delete();
        directory.delete();
    }

    private String run(String commands) throws IOException {
        bytes.reset();
        CommandReader reader = new CommandReader(new ByteArrayInputStream(commands.getBytes(StandardCharsets.UTF_8)));
        for (Command command = reader.next(); command != null; command = reader.next())
            session.handle(command);
        writer.flush();
        return new String(bytes.toByteArray(), StandardCharsets.UTF_8);
    }

    /** The names of the hits a search command gives, in order. */
    private List<String> names(String search) throws IOException {
        String replies = run(search);
        List<String> found = new ArrayList<>();
        Matcher m = Pattern.compile("SM\\(Seq\\(\"\\d+\"\\),Fd\\(\"name\",\"([^\"]*)\"\\)").matcher(replies);
        while (m.find())
            found.add(m.group(1));
        return found;
    }

    @Test
    public void listsNestAndAListOfExclusionsExcludesFromEverything() throws IOException {
        String re = ",So(\"size\"),Re(P10,\"name\"));";
        assertEquals(List.of("delta.bin", "Alpha_Report.pdf", "beta-notes.txt"),
                     names("IS(Seq(\"5\"),Expr(N),Fd(\"name\",\"gamma\"),Expr(E)" + re));
        assertEquals(List.of("beta-notes.txt", "gamma report.TXT"),
                     names("IS(Seq(\"6\"),Expr(S),Fd(\"name\",\"txt\"),Fd(\"name\",\"nothing\"),Expr(E)" + re));
        assertEquals(List.of("Alpha_Report.pdf"),
                     names("IS(Seq(\"7\"),Fd(\"name\",\"report\"),Expr(N),Fi(\"size\",\"1000\",\"\"),Expr(E)" + re));
        assertEquals(List.of("delta.bin", "Alpha_Report.pdf"), names("IS(Seq(\"8\"),Fi(\"size\",\"\",\"100\")" + re));
        assertEquals(List.of("beta-notes.txt", "gamma report.TXT"), names("IS(Seq(\"9\"),Fd(\"kind\",\"02\")" + re));
        assertEquals(List.of("Alpha_Report.pdf", "gamma report.TXT"),
                     names("IS(Seq(\"10\"),Fd(\"\",\"report AND (pdf OR txt)\")" + re));
    }

    @Test
    public void distinctPagesAndRefusalsAnswerWithTheirSequence() throws IOException {
        String first = run("IS(Seq(\"11\"),Fd(\"kind\",\"0*\"),Re(DP2,\"kind\"));");
        assertTrue(first, first.startsWith("IS(Seq(\"11\"),St(\"T3\"));SM(Seq(\"11\"),Fd(\"kind\",\"01\"));"));
        assertEquals("SR(Seq(\"12\"),St(\"T3\"));SM(Seq(\"12\"),Fd(\"kind\",\"03\"));", run("SR(Seq(\"12\"));"));
        assertTrue(run("SR(Seq(\"13\"));").startsWith("SR(Seq(\"13\"),St(\"FM\","));
        assertTrue(run("IS(Seq(\"14\"),Fd(\"blob\",\"raw\"));").startsWith("IS(Seq(\"14\"),St(\"FM\","));
        assertTrue(run("IS(Seq(\"15\"),Fd(\"size\",\"ten\"));").startsWith("IS(Seq(\"15\"),St(\"FM\","));
        assertTrue(run("IS(Seq(\"16\"),Expr(E));").startsWith("IS(Seq(\"16\"),St(\"FM\","));
        assertEquals("", run("IA(Seq(\"17\"),Fd(\"size\",\"x\"),ESO);"));
        assertEquals("IA(Seq(\"18\"),St(\"T\"));", run("IA(Seq(\"18\"),Fd(K,\"note\",\"The Quick fox\"));"));
        // The tag's options (standard analyzer) index the value and parse the query alike.
        assertTrue(run("IS(Seq(\"19\"),Fd(K,\"note\",\"QUICK\"));").contains("St(\"T1\")"));
    }
}
