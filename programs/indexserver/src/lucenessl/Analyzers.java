package lucenessl;

import java.io.Reader;

import org.apache.lucene.analysis.Analyzer;
import org.apache.lucene.analysis.core.KeywordAnalyzer;
import org.apache.lucene.analysis.core.KeywordTokenizer;
import org.apache.lucene.analysis.core.LowerCaseFilter;
import org.apache.lucene.analysis.core.SimpleAnalyzer;
import org.apache.lucene.analysis.core.StopAnalyzer;
import org.apache.lucene.analysis.core.WhitespaceAnalyzer;
import org.apache.lucene.analysis.en.EnglishAnalyzer;
import org.apache.lucene.analysis.standard.ClassicAnalyzer;
import org.apache.lucene.analysis.standard.StandardAnalyzer;
import org.apache.lucene.analysis.util.CharTokenizer;
import org.apache.lucene.util.Version;

/**
 * The analyzers a field may ask for by number. 0 keeps the value as one term;
 * 1 standard; 2 simple (letters, lower case); 3 white space; 4 stop words;
 * 5 classic; 6 the whole value as one term in lower case; 7 file names: the
 * letters and digits of a path, lower case, so that "Report_2024.PDF" is
 * found by "report", "2024" or "pdf"; 8 English with stemming.
 *
 * <p>One set per connection thread: analyzers reuse their token streams per
 * thread, so a set is not shared between threads.
 */
final class Analyzers {
    static final Version VERSION = Version.LUCENE_4_10_4;
    static final int COUNT = 9;

    private final Analyzer[] analyzers = new Analyzer[COUNT];

    Analyzer get(int number) {
        int index = number >= 0 && number < COUNT ? number : 0;
        if (analyzers[index] == null)
            analyzers[index] = create(index);
        return analyzers[index];
    }

    private static Analyzer create(int number) {
        switch (number) {
        case 1:
            return new StandardAnalyzer();
        case 2:
            return new SimpleAnalyzer();
        case 3:
            return new WhitespaceAnalyzer();
        case 4:
            return new StopAnalyzer();
        case 5:
            return new ClassicAnalyzer();
        case 6:
            return new Analyzer() {
                @Override
                protected TokenStreamComponents createComponents(String field, Reader reader) {
                    KeywordTokenizer source = new KeywordTokenizer(reader);
                    return new TokenStreamComponents(source, new LowerCaseFilter(source));
                }
            };
        case 7:
            return new Analyzer() {
                @Override
                protected TokenStreamComponents createComponents(String field, Reader reader) {
                    CharTokenizer source = new CharTokenizer(reader) {
                        @Override
                        protected boolean isTokenChar(int c) {
                            return Character.isLetterOrDigit(c);
                        }

                        @Override
                        protected int normalize(int c) {
                            return Character.toLowerCase(c);
                        }
                    };
                    return new TokenStreamComponents(source);
                }
            };
        case 8:
            return new EnglishAnalyzer();
        default:
            return new KeywordAnalyzer();
        }
    }
}
