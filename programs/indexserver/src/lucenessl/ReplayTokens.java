package lucenessl;

import java.io.IOException;
import java.util.ArrayList;
import java.util.List;

import org.apache.lucene.analysis.Analyzer;
import org.apache.lucene.analysis.TokenStream;
import org.apache.lucene.analysis.tokenattributes.CharTermAttribute;
import org.apache.lucene.analysis.tokenattributes.OffsetAttribute;
import org.apache.lucene.analysis.tokenattributes.PositionIncrementAttribute;

/**
 * The tokens of one value, analysed at once and played back when the writer
 * indexes the document. An analyzer hands out one reused stream per thread,
 * so two fields of a document analysed by the same analyzer cannot both hold
 * a live stream until the writer reads them; a recorded list can.
 */
final class ReplayTokens extends TokenStream {
    private final CharTermAttribute term = addAttribute(CharTermAttribute.class);
    private final OffsetAttribute offset = addAttribute(OffsetAttribute.class);
    private final PositionIncrementAttribute increment = addAttribute(PositionIncrementAttribute.class);
    private final List<String> terms = new ArrayList<>();
    private final List<int[]> positions = new ArrayList<>();
    private int next;
    private int endOffset;

    ReplayTokens(Analyzer analyzer, String field, String value) throws IOException {
        try (TokenStream source = analyzer.tokenStream(field, value)) {
            CharTermAttribute sourceTerm = source.addAttribute(CharTermAttribute.class);
            OffsetAttribute sourceOffset = source.addAttribute(OffsetAttribute.class);
            PositionIncrementAttribute sourceIncrement = source.addAttribute(PositionIncrementAttribute.class);
            source.reset();
            while (source.incrementToken()) {
                terms.add(sourceTerm.toString());
                positions.add(new int[] {sourceOffset.startOffset(), sourceOffset.endOffset(),
                                         sourceIncrement.getPositionIncrement()});
            }
            source.end();
            endOffset = sourceOffset.endOffset();
        }
    }

    @Override
    public boolean incrementToken() {
        if (next >= terms.size())
            return false;
        clearAttributes();
        int[] at = positions.get(next);
        term.setEmpty().append(terms.get(next));
        offset.setOffset(at[0], at[1]);
        increment.setPositionIncrement(at[2]);
        ++next;
        return true;
    }

    @Override
    public void end() throws IOException {
        super.end();
        offset.setOffset(endOffset, endOffset);
    }

    @Override
    public void reset() throws IOException {
        super.reset();
        next = 0;
    }
}
