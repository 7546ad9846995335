package lucenessl;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.HashMap;
import java.util.HashSet;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;

import org.apache.lucene.document.Document;
import org.apache.lucene.document.Field;
import org.apache.lucene.document.FieldType;
import org.apache.lucene.document.IntField;
import org.apache.lucene.document.LongField;
import org.apache.lucene.document.StoredField;
import org.apache.lucene.document.TextField;
import org.apache.lucene.index.IndexReader;
import org.apache.lucene.index.IndexableField;
import org.apache.lucene.index.MultiReader;
import org.apache.lucene.index.Term;
import org.apache.lucene.queryparser.classic.ParseException;
import org.apache.lucene.queryparser.classic.QueryParser;
import org.apache.lucene.search.BooleanClause.Occur;
import org.apache.lucene.search.BooleanQuery;
import org.apache.lucene.search.FieldCache;
import org.apache.lucene.search.IndexSearcher;
import org.apache.lucene.search.MatchAllDocsQuery;
import org.apache.lucene.search.NumericRangeQuery;
import org.apache.lucene.search.Query;
import org.apache.lucene.search.ScoreDoc;
import org.apache.lucene.search.Sort;
import org.apache.lucene.search.SortField;
import org.apache.lucene.search.TermQuery;
import org.apache.lucene.search.TermRangeQuery;
import org.apache.lucene.search.TopDocs;
import org.apache.lucene.search.WildcardQuery;

/**
 * What one link has chosen (field options, the selected index, the search
 * being paged) and the commands that act on it. Runs on the link's thread.
 *
 * <p>Fields by their options: binary ones are only stored; numeric ones are
 * indexed as numbers (ranges and sorting by value); analysed text is split
 * into words by the field's analyzer; everything else is one term, which a
 * term clause matches exactly, or by pattern when it holds '*' or '?'.
 *
 * <p>A query is the command's Fd (term, or query text on analysed fields),
 * Fi (range, both bounds included, an empty bound open) and Expr clauses.
 * Expr(M), Expr(S) and Expr(N) open a list whose members must, should (at
 * least one), and must not match; Expr(E) closes it, and the list then counts
 * as one member of the list around it. Clauses outside any list must match;
 * no clause at all matches every document. An Fd with an empty name is query
 * text for the default field.
 */
final class Session {
    /** Raised for a command that is refused; its message goes back to the client. */
    static final class Refusal extends Exception {
        private static final long serialVersionUID = 1L;

        Refusal(String message) {
            super(message);
        }
    }

    private static final FieldType KEYWORD = keyword(false);
    private static final FieldType KEYWORD_STORED = keyword(true);

    /** A search whose pages are still being asked for. */
    private static final class Search {
        long sequence;
        Query query;
        Sort sort;
        boolean scores;
        List<String> fields;
        Set<String> load;
        int perPage;
        int limit;
        int sent;
        ScoreDoc last;
        List<List<String[]>> distinct;
        IndexSearcher searcher;
        final List<Runnable> releases = new ArrayList<>();
    }

    private final IndexStore store;
    private final ServerTrace trace;
    private final ReplyWriter out;
    private final Analyzers analyzers = new Analyzers();
    private final Map<String, FieldSetup> names = new HashMap<>();
    private final Map<String, FieldSetup> tags = new HashMap<>();
    private String defaultField = "";
    private IndexStore.Index index;
    private Search search;

    Session(IndexStore store, ServerTrace trace, ReplyWriter out) {
        this.store = store;
        this.trace = trace;
        this.out = out;
    }

    private static FieldType keyword(boolean stored) {
        FieldType type = new FieldType();
        type.setIndexed(true);
        type.setTokenized(false);
        type.setOmitNorms(true);
        type.setIndexOptions(org.apache.lucene.index.FieldInfo.IndexOptions.DOCS_ONLY);
        type.setStored(stored);
        type.freeze();
        return type;
    }

    /**
     * Carries out one command and writes its reply, unless it is queued.
     * False when the link is to end: Close, or Quit (the caller stops the server).
     */
    boolean handle(Command command) throws IOException {
        // Every command passes here: its text is made only when it is wanted.
        if (trace.on(ServerTrace.VERBOSE))
            trace.verbose("Command " + command.name + " " + command.sequence + " " + command.clauses);
        switch (command.name) {
        case "Close":
        case "Quit":
            return false;
        default:
            break;
        }
        try {
            run(command);
        } catch (Refusal e) {
            refuse(command, e.getMessage());
        } catch (IOException | RuntimeException e) {
            trace.always("Command " + command.name + " " + command.sequence + " failed: " + e);
            refuse(command, e.toString());
        }
        return true;
    }

    /** Lets go of the search and the index. */
    void close() {
        finishSearch();
        releaseIndex();
    }

    private void refuse(Command command, String reason) throws IOException {
        if (trace.on(ServerTrace.NORMAL))
            trace.normal("Refused " + command.name + " " + command.sequence + ": " + reason);
        if (!command.queued)
            out.refused(command, reason);
    }

    private void success(Command command) throws IOException {
        if (!command.queued)
            out.success(command);
    }

    private void run(Command command) throws Refusal, IOException {
        switch (command.name) {
        case "FO":
            fieldOptions(command);
            success(command);
            break;
        case "IO":
            open(command);
            success(command);
            break;
        case "IC":
            finishSearch();
            selected();
            releaseIndex();
            success(command);
            break;
        case "IA":
            selected().writer.addDocument(document(command));
            selected().changed.set(true);
            success(command);
            break;
        case "IDQ":
            selected().writer.deleteDocuments(query(command));
            selected().changed.set(true);
            success(command);
            break;
        case "CM":
            selected().writer.commit();
            selected().changed.set(true);
            success(command);
            break;
        case "IZ":
            selected().writer.forceMerge(1);
            selected().writer.commit();
            selected().changed.set(true);
            success(command);
            break;
        case "NP":
            success(command);
            break;
        case "TL":
            traceLevel(command);
            success(command);
            break;
        case "IS":
            search(command);
            break;
        case "SR":
            nextPage(command);
            break;
        default:
            throw new Refusal("Unknown command " + command.name);
        }
    }

    // --- Options and index selection ---------------------------------------

    private void fieldOptions(Command command) throws Refusal {
        names.clear();
        tags.clear();
        defaultField = "";
        for (Command.Clause clause : command.clauses) {
            List<String> values = clause.quoted();
            if (clause.name.equals("De") && values.size() == 1) {
                defaultField = values.get(0);
            } else if (clause.name.equals("Fd") && values.size() == 2) {
                FieldSetup setup = new FieldSetup(values.get(1));
                if (!clause.tag().isEmpty())
                    tags.put(clause.tag(), setup);
                else
                    names.put(values.get(0), setup);
            } else if (!clause.name.equals("ESO")) {
                throw new Refusal("Unexpected field option " + clause);
            }
        }
        trace.normal("Field options: default field \"" + defaultField + "\", " + names.size() + " fields, " +
                     tags.size() + " tags");
    }

    private FieldSetup setup(String name, String tag) {
        FieldSetup setup = tag.isEmpty() ? null : tags.get(tag);
        if (setup == null)
            setup = names.get(name);
        if (setup == null)
            setup = names.get("Default");
        return setup != null ? setup : FieldSetup.DEFAULT;
    }

    private void open(Command command) throws Refusal, IOException {
        List<String> paths = indexNames(command);
        if (paths.size() != 1)
            throw new Refusal("Open takes one index, In(\"directory\")");
        finishSearch();
        IndexStore.Index opened = store.acquire(paths.get(0));
        releaseIndex();
        index = opened;
    }

    private IndexStore.Index selected() throws Refusal {
        if (index == null)
            throw new Refusal("No index selected");
        return index;
    }

    private void releaseIndex() {
        IndexStore.Index old = index;
        index = null;
        try {
            store.release(old);
        } catch (IOException | RuntimeException e) {
            trace.always("Failed to close index " + old.path + ": " + e);
        }
    }

    private static List<String> indexNames(Command command) {
        List<String> paths = new ArrayList<>();
        for (Command.Clause clause : command.clauses)
            if (clause.name.equals("In"))
                paths.addAll(clause.quoted());
        return paths;
    }

    private void traceLevel(Command command) throws Refusal {
        for (Command.Clause clause : command.clauses) {
            List<String> values = clause.quoted();
            if (clause.name.equals("Fd") && values.size() == 2 && values.get(0).equals("Level")) {
                int level = ServerTrace.level(values.get(1));
                if (level < 0)
                    throw new Refusal("Unknown trace level " + values.get(1));
                trace.always("Trace level " + values.get(1));
                trace.setLevel(level);
                return;
            }
        }
        throw new Refusal("No trace level given");
    }

    // --- Documents ---------------------------------------------------------

    private Document document(Command command) throws Refusal, IOException {
        Document document = new Document();
        for (Command.Clause clause : command.clauses) {
            if (!clause.name.equals("Fd"))
                continue;
            List<String> values = clause.quoted();
            if (values.size() != 2)
                throw new Refusal("A field takes a name and a value: " + clause);
            addField(document, setup(values.get(0), clause.tag()), values.get(0), values.get(1));
        }
        if (document.getFields().isEmpty())
            throw new Refusal("A document needs a field");
        return document;
    }

    private void addField(Document document, FieldSetup setup, String name, String value) throws Refusal, IOException {
        if (name.isEmpty())
            throw new Refusal("A field needs a name");
        if (setup.binary) {
            if (setup.stored)
                document.add(new StoredField(name, value.getBytes(StandardCharsets.UTF_8)));
            return;
        }
        Field.Store store = setup.stored ? Field.Store.YES : Field.Store.NO;
        if (setup.numeric) {
            if (setup.isLong())
                document.add(new LongField(name, longValue(name, value), store));
            else
                document.add(new IntField(name, intValue(name, value), store));
        } else if (setup.analysed()) {
            document.add(new Field(name, new ReplayTokens(analyzers.get(setup.analyzer), name, value),
                                   TextField.TYPE_NOT_STORED));
            if (setup.stored)
                document.add(new StoredField(name, value));
        } else {
            document.add(new Field(name, value, setup.stored ? KEYWORD_STORED : KEYWORD));
        }
    }

    private static long longValue(String name, String value) throws Refusal {
        try {
            return Long.parseLong(value.trim());
        } catch (NumberFormatException e) {
            throw new Refusal("Value of " + name + " is not a number: " + value);
        }
    }

    private static int intValue(String name, String value) throws Refusal {
        try {
            return Integer.parseInt(value.trim());
        } catch (NumberFormatException e) {
            throw new Refusal("Value of " + name + " is not a 32-bit number: " + value);
        }
    }

    // --- Queries -----------------------------------------------------------

    private static final class Group {
        final BooleanQuery query = new BooleanQuery();
        final Occur members;

        Group(Occur members) {
            this.members = members;
        }
    }

    /** The query of a command's clauses (see the class comment). */
    Query query(Command command) throws Refusal {
        String commandDefault = defaultField;
        Deque<Group> open = new ArrayDeque<>();
        open.push(new Group(Occur.MUST));
        for (Command.Clause clause : command.clauses) {
            List<String> values = clause.quoted();
            switch (clause.name) {
            case "De":
                if (values.size() != 1)
                    throw new Refusal("De takes a field name");
                commandDefault = values.get(0);
                break;
            case "Expr":
                if (clause.values.size() != 1 || clause.values.get(0).quoted)
                    throw new Refusal("Expr takes M, S, N or E");
                switch (clause.values.get(0).text) {
                case "M":
                    open.push(new Group(Occur.MUST));
                    break;
                case "S":
                    open.push(new Group(Occur.SHOULD));
                    break;
                case "N":
                    open.push(new Group(Occur.MUST_NOT));
                    break;
                case "E":
                    if (open.size() == 1)
                        throw new Refusal("Expr(E) without a list to end");
                    Group done = open.pop();
                    open.peek().query.add(finish(done.query), open.peek().members);
                    break;
                default:
                    throw new Refusal("Expr takes M, S, N or E");
                }
                break;
            case "Fd":
                if (values.size() != 2)
                    throw new Refusal("A field takes a name and a value: " + clause);
                open.peek().query.add(term(clause.tag(), values.get(0), values.get(1), commandDefault),
                                      open.peek().members);
                break;
            case "Fi":
                if (values.size() != 3)
                    throw new Refusal("A range takes a name and two bounds: " + clause);
                open.peek().query.add(range(clause.tag(), values.get(0), values.get(1), values.get(2)),
                                      open.peek().members);
                break;
            default:
                break;
            }
        }
        while (open.size() > 1) {
            Group done = open.pop();
            open.peek().query.add(finish(done.query), open.peek().members);
        }
        return finish(open.pop().query);
    }

    /**
     * A list of nothing matches everything; a list of exclusions excludes from
     * everything; a list of one required clause is that clause, which spares
     * the search a level of scoring for the most common query.
     */
    private static Query finish(BooleanQuery query) {
        if (query.clauses().isEmpty())
            return new MatchAllDocsQuery();
        if (query.clauses().size() == 1 && query.clauses().get(0).getOccur() == Occur.MUST)
            return query.clauses().get(0).getQuery();
        boolean onlyExcluding = true;
        for (org.apache.lucene.search.BooleanClause clause : query.clauses())
            onlyExcluding &= clause.getOccur() == Occur.MUST_NOT;
        if (onlyExcluding)
            query.add(new MatchAllDocsQuery(), Occur.MUST);
        return query;
    }

    private Query term(String tag, String name, String value, String commandDefault) throws Refusal {
        if (name.isEmpty()) {
            if (commandDefault.isEmpty())
                throw new Refusal("No default field for query text");
            return parse(commandDefault, setup(commandDefault, tag), value);
        }
        FieldSetup setup = setup(name, tag);
        if (setup.binary)
            throw new Refusal("A binary field cannot be searched: " + name);
        if (setup.numeric) {
            if (setup.isLong()) {
                long number = longValue(name, value);
                return NumericRangeQuery.newLongRange(name, number, number, true, true);
            }
            int number = intValue(name, value);
            return NumericRangeQuery.newIntRange(name, number, number, true, true);
        }
        if (setup.analysed())
            return parse(name, setup, value);
        if (value.indexOf('*') >= 0 || value.indexOf('?') >= 0)
            return new WildcardQuery(new Term(name, value));
        return new TermQuery(new Term(name, value));
    }

    private Query parse(String field, FieldSetup setup, String text) throws Refusal {
        QueryParser parser = new QueryParser(field, analyzers.get(setup.analysed() ? setup.analyzer : 0));
        parser.setAllowLeadingWildcard(true);
        try {
            return parser.parse(text);
        } catch (ParseException | RuntimeException e) {
            throw new Refusal("Cannot parse query \"" + text + "\": " + firstLine(e.getMessage()));
        }
    }

    private Query range(String tag, String name, String low, String high) throws Refusal {
        FieldSetup setup = setup(name, tag);
        if (setup.binary)
            throw new Refusal("A binary field cannot be searched: " + name);
        if (setup.numeric) {
            if (setup.isLong())
                return NumericRangeQuery.newLongRange(name, low.isEmpty() ? null : longValue(name, low),
                                                      high.isEmpty() ? null : longValue(name, high), true, true);
            return NumericRangeQuery.newIntRange(name, low.isEmpty() ? null : intValue(name, low),
                                                 high.isEmpty() ? null : intValue(name, high), true, true);
        }
        return TermRangeQuery.newStringRange(name, low.isEmpty() ? null : low, high.isEmpty() ? null : high, true,
                                             true);
    }

    private Sort sort(Command command) {
        List<SortField> fields = new ArrayList<>();
        for (Command.Clause clause : command.clauses) {
            if (!clause.name.equals("So") || clause.quoted().size() != 1)
                continue;
            String name = clause.quoted().get(0);
            FieldSetup setup = setup(name, clause.tag());
            if (setup.numeric)
                fields.add(new SortField(name, setup.isLong() ? FieldCache.NUMERIC_UTILS_LONG_PARSER
                                                             : FieldCache.NUMERIC_UTILS_INT_PARSER));
            else
                fields.add(new SortField(name, SortField.Type.STRING));
        }
        return fields.isEmpty() ? null : new Sort(fields.toArray(new SortField[0]));
    }

    // --- Searching ---------------------------------------------------------

    private void search(Command command) throws Refusal, IOException {
        finishSearch();
        Search next = new Search();
        next.sequence = command.sequence;
        next.query = query(command);
        next.sort = sort(command);
        next.perPage = 50;
        int maximum = 0;
        boolean distinct = false;
        next.fields = new ArrayList<>();
        for (Command.Clause clause : command.clauses) {
            if (!clause.name.equals("Re"))
                continue;
            String options = clause.tag();
            next.scores = options.indexOf('S') >= 0;
            distinct = options.indexOf('D') >= 0;
            next.perPage = FieldSetup.optionValue(options, 'P');
            maximum = FieldSetup.optionValue(options, 'M');
            next.fields.addAll(clause.quoted());
        }
        if (!next.fields.isEmpty())
            next.load = new HashSet<>(next.fields);
        try {
            acquireSearcher(next, indexNames(command));
            int documents = Math.max(1, next.searcher.getIndexReader().maxDoc());
            int cap = maximum > 0 ? Math.min(maximum, documents) : documents;
            if (distinct) {
                TopDocs all = searchPage(next, null, cap);
                Set<String> seen = new HashSet<>();
                next.distinct = new ArrayList<>();
                for (ScoreDoc hit : all.scoreDocs) {
                    List<String[]> fields = hitFields(next, hit);
                    StringBuilder key = new StringBuilder();
                    for (String[] field : fields)
                        key.append(field[0]).append('\u0000').append(field[1]).append('\u0000');
                    if (seen.add(key.toString()))
                        next.distinct.add(fields);
                }
                next.limit = next.distinct.size();
                out.status(command.name, command.sequence, "T" + next.limit);
                search = next;
                writePage(command.sequence);
                return;
            }
            int first = next.perPage > 0 ? Math.min(next.perPage, cap) : cap;
            TopDocs page = searchPage(next, null, first);
            next.limit = maximum > 0 ? Math.min(page.totalHits, maximum) : page.totalHits;
            out.status(command.name, command.sequence, "T" + next.limit);
            search = next;
            writeHits(command.sequence, page.scoreDocs);
        } catch (IOException | RuntimeException | Refusal e) {
            if (search == next)
                search = null;
            releaseSearch(next);
            throw e;
        }
        if (search != null && search.sent >= search.limit)
            finishSearch();
    }

    private void nextPage(Command command) throws Refusal, IOException {
        if (search == null)
            throw new Refusal("No search to page");
        out.status(command.name, command.sequence, "T" + search.limit);
        if (search.distinct != null) {
            writePage(command.sequence);
        } else {
            int left = search.limit - search.sent;
            int size = search.perPage > 0 ? Math.min(search.perPage, left) : left;
            writeHits(command.sequence, searchPage(search, search.last, Math.max(1, size)).scoreDocs);
        }
        if (search != null && search.sent >= search.limit)
            finishSearch();
    }

    private static TopDocs searchPage(Search at, ScoreDoc after, int size) throws IOException {
        if (at.sort == null)
            return at.searcher.searchAfter(after, at.query, size);
        return at.searcher.searchAfter(after, at.query, null, size, at.sort, at.scores, false);
    }

    private void writeHits(long sequence, ScoreDoc[] hits) throws IOException {
        for (ScoreDoc hit : hits) {
            if (search.sent >= search.limit)
                break;
            out.match(sequence, hitFields(search, hit));
            search.last = hit;
            ++search.sent;
        }
    }

    private void writePage(long sequence) throws IOException {
        int left = search.limit - search.sent;
        int size = search.perPage > 0 ? Math.min(search.perPage, left) : left;
        for (int i = 0; i < size; ++i)
            out.match(sequence, search.distinct.get(search.sent++));
    }

    private static List<String[]> hitFields(Search at, ScoreDoc hit) throws IOException {
        Document document = at.load != null ? at.searcher.doc(hit.doc, at.load) : at.searcher.doc(hit.doc);
        List<String[]> fields = new ArrayList<>();
        if (at.load != null) {
            for (String name : new LinkedHashSet<>(at.fields))
                for (IndexableField field : document.getFields(name))
                    fields.add(new String[] {name, text(field)});
        } else {
            for (IndexableField field : document.getFields())
                fields.add(new String[] {field.name(), text(field)});
        }
        if (at.scores)
            fields.add(new String[] {"score", Float.toString(hit.score)});
        return fields;
    }

    private static String text(IndexableField field) {
        if (field.numericValue() != null)
            return field.numericValue().toString();
        if (field.stringValue() != null)
            return field.stringValue();
        if (field.binaryValue() != null)
            return field.binaryValue().utf8ToString();
        return "";
    }

    /** The searcher of the indexes named, or of the selected one. */
    private void acquireSearcher(Search at, List<String> paths) throws Refusal, IOException {
        List<IndexStore.Index> indexes = new ArrayList<>();
        if (paths.isEmpty()) {
            indexes.add(selected());
        } else {
            for (String path : paths) {
                IndexStore.Index named = store.acquire(path);
                at.releases.add(() -> {
                    try {
                        store.release(named);
                    } catch (IOException e) {
                        trace.always("Failed to close index " + named.path + ": " + e);
                    }
                });
                indexes.add(named);
            }
        }
        List<IndexReader> readers = new ArrayList<>();
        for (IndexStore.Index each : indexes) {
            // The flag is cleared before the refresh: a change made meanwhile
            // sets it again, and the next search takes it in.
            if (each.changed.getAndSet(false))
                each.searchers.maybeRefreshBlocking();
            IndexSearcher searcher = each.searchers.acquire();
            at.releases.add(0, () -> {
                try {
                    each.searchers.release(searcher);
                } catch (IOException e) {
                    trace.always("Failed to release a searcher: " + e);
                }
            });
            readers.add(searcher.getIndexReader());
        }
        if (readers.size() == 1)
            at.searcher = new IndexSearcher(readers.get(0));
        else
            at.searcher = new IndexSearcher(new MultiReader(readers.toArray(new IndexReader[0]), false));
    }

    private void finishSearch() {
        Search done = search;
        search = null;
        if (done != null)
            releaseSearch(done);
    }

    private static void releaseSearch(Search done) {
        for (Runnable release : done.releases)
            release.run();
        done.releases.clear();
    }

    private static String firstLine(String text) {
        if (text == null)
            return "";
        int end = text.indexOf('\n');
        return end < 0 ? text : text.substring(0, end);
    }
}
