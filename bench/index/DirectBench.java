import java.io.File;
import java.lang.management.ManagementFactory;
import java.util.Arrays;
import java.util.Random;

import org.apache.lucene.analysis.Analyzer;
import org.apache.lucene.analysis.core.KeywordAnalyzer;
import org.apache.lucene.analysis.miscellaneous.PerFieldAnalyzerWrapper;
import org.apache.lucene.analysis.standard.StandardAnalyzer;
import org.apache.lucene.document.Document;
import org.apache.lucene.document.Field;
import org.apache.lucene.document.IntField;
import org.apache.lucene.document.LongField;
import org.apache.lucene.document.StringField;
import org.apache.lucene.document.TextField;
import org.apache.lucene.index.DirectoryReader;
import org.apache.lucene.index.IndexWriter;
import org.apache.lucene.index.IndexWriterConfig;
import org.apache.lucene.index.Term;
import org.apache.lucene.search.IndexSearcher;
import org.apache.lucene.search.NumericRangeQuery;
import org.apache.lucene.search.Query;
import org.apache.lucene.search.ScoreDoc;
import org.apache.lucene.search.TermQuery;
import org.apache.lucene.search.TopDocs;
import org.apache.lucene.store.FSDirectory;
import org.apache.lucene.util.Version;

/**
 * The peer of the index benchmark: the same documents and queries as the
 * client sends through the index server, done with Lucene directly in one
 * process. Prints one line of figures:
 * index_seconds, index_cpu_seconds, query_median_us, query_p90_us, query_cpu_seconds.
 *
 * <pre>java DirectBench DIRECTORY DOCUMENTS QUERIES</pre>
 */
public final class DirectBench {
    private static long cpu() {
        return ((com.sun.management.OperatingSystemMXBean) ManagementFactory.getOperatingSystemMXBean())
            .getProcessCpuTime();
    }

    public static void main(String[] args) throws Exception {
        File directory = new File(args[0]);
        int documents = Integer.parseInt(args[1]);
        int queries = Integer.parseInt(args[2]);

        PerFieldAnalyzerWrapper analyzer = new PerFieldAnalyzerWrapper(
            new KeywordAnalyzer(), java.util.Map.<String, Analyzer>of("name", new StandardAnalyzer()));
        IndexWriterConfig config = new IndexWriterConfig(Version.LUCENE_4_10_4, analyzer);
        config.setRAMBufferSizeMB(32);
        long start = System.nanoTime();
        long cpuStart = cpu();
        try (FSDirectory store = FSDirectory.open(directory); IndexWriter writer = new IndexWriter(store, config)) {
            for (int i = 0; i < documents; ++i) {
                Document document = new Document();
                document.add(new StringField("path", "/bench/d" + (i / 100) + "/file" + i + ".dat", Field.Store.YES));
                document.add(new TextField("name", "file " + i + " of bench run", Field.Store.YES));
                document.add(new LongField("size", i, Field.Store.YES));
                document.add(new IntField("kind", i % 7, Field.Store.YES));
                writer.addDocument(document);
            }
            writer.commit();
            double indexSeconds = (System.nanoTime() - start) / 1e9;
            double indexCpu = (cpu() - cpuStart) / 1e9;

            long[] times = new long[queries];
            Random random = new Random(7);
            long found = 0;
            cpuStart = cpu();
            try (DirectoryReader reader = DirectoryReader.open(writer, true)) {
                IndexSearcher searcher = new IndexSearcher(reader);
                for (int q = 0; q < queries; ++q) {
                    int at = random.nextInt(documents - 10);
                    long begin = System.nanoTime();
                    Query query = q % 2 == 0
                        ? new TermQuery(new Term("path", "/bench/d" + (at / 100) + "/file" + at + ".dat"))
                        : NumericRangeQuery.newLongRange("size", (long) at, (long) at + 9, true, true);
                    TopDocs hits = searcher.search(query, 10);
                    for (ScoreDoc hit : hits.scoreDocs)
                        found += searcher.doc(hit.doc).getFields().size();
                    times[q] = System.nanoTime() - begin;
                }
            }
            double queryCpu = (cpu() - cpuStart) / 1e9;
            Arrays.sort(times);
            System.out.printf("index_seconds=%.4f index_cpu_seconds=%.4f query_median_us=%.2f query_p90_us=%.2f "
                              + "query_cpu_seconds=%.4f fields=%d%n",
                              indexSeconds, indexCpu, times[queries / 2] / 1e3, times[queries * 9 / 10] / 1e3,
                              queryCpu, found);
        }
    }
}
