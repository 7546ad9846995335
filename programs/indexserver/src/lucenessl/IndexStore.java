package lucenessl;

import java.io.File;
import java.io.IOException;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.atomic.AtomicBoolean;

import org.apache.lucene.analysis.core.KeywordAnalyzer;
import org.apache.lucene.index.IndexWriter;
import org.apache.lucene.index.IndexWriterConfig;
import org.apache.lucene.search.SearcherManager;
import org.apache.lucene.store.Directory;
import org.apache.lucene.store.FSDirectory;

/**
 * The indexes the server has open, one writer per directory whichever links
 * use it. An index is opened (created if it is not there) by the first link
 * that asks for it and closed, with a commit, when the last one lets go.
 * Searches see what was added before them, committed or not: a search after
 * a change takes a reader brought up to date with the writer first.
 */
final class IndexStore {
    static final class Index {
        final String path;
        final Directory directory;
        final IndexWriter writer;
        final SearcherManager searchers;
        /** Set by every change through the writer; a search refreshes its reader only then. */
        final AtomicBoolean changed = new AtomicBoolean();
        int users;

        Index(String path, Directory directory, IndexWriter writer, SearcherManager searchers) {
            this.path = path;
            this.directory = directory;
            this.writer = writer;
            this.searchers = searchers;
        }
    }

    private final ServerTrace trace;
    private final Map<String, Index> open = new HashMap<>();
    private boolean closed;

    IndexStore(ServerTrace trace) {
        this.trace = trace;
    }

    /** The index in `path`, opened or made if need be; release it when done. */
    synchronized Index acquire(String path) throws IOException {
        if (closed)
            throw new IOException("The server is stopping");
        File directory = new File(path).getCanonicalFile();
        String key = directory.getPath();
        Index index = open.get(key);
        if (index == null) {
            if (!directory.isDirectory() && !directory.mkdirs())
                throw new IOException("Cannot make index directory " + key);
            Directory store = FSDirectory.open(directory);
            IndexWriter writer = null;
            try {
                // Text fields arrive analysed already (see Session); the
                // writer's own analyzer only sees whole-value terms.
                IndexWriterConfig config = new IndexWriterConfig(Analyzers.VERSION, new KeywordAnalyzer());
                config.setOpenMode(IndexWriterConfig.OpenMode.CREATE_OR_APPEND);
                config.setRAMBufferSizeMB(32);
                writer = new IndexWriter(store, config);
                index = new Index(key, store, writer, new SearcherManager(writer, true, null));
            } catch (IOException | RuntimeException e) {
                if (writer != null)
                    writer.rollback();
                store.close();
                throw e;
            }
            open.put(key, index);
            trace.normal("Opened index " + key + " with " + index.writer.numDocs() + " documents");
        }
        ++index.users;
        return index;
    }

    synchronized void release(Index index) throws IOException {
        if (index == null || --index.users > 0 || open.get(index.path) != index)
            return;
        open.remove(index.path);
        close(index);
    }

    /** Commits and closes every index; later acquires fail. */
    synchronized void closeAll() {
        closed = true;
        List<Index> all = new ArrayList<>(open.values());
        open.clear();
        for (Index index : all) {
            try {
                close(index);
            } catch (IOException | RuntimeException e) {
                trace.always("Failed to close index " + index.path + ": " + e);
            }
        }
    }

    private void close(Index index) throws IOException {
        try {
            index.searchers.close();
            index.writer.close();
            trace.normal("Closed index " + index.path);
        } finally {
            index.directory.close();
        }
    }
}
