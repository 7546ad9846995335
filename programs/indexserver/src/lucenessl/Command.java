package lucenessl;

import java.util.ArrayList;
import java.util.List;

/**
 * One command as the client wrote it: a short name and its clauses, e.g.
 * {@code IS(Seq("17"),In("main"),Expr(M),Fd("path","c:\\x"),Expr(E),Re(P50,"path"));}
 * A clause is a name with a bracketed list of values, or a bare word (the
 * flag {@code ESO}, which marks a command that gets no reply).
 */
final class Command {
    /** A value of a clause: quoted text (a name or a value) or a bare word (a tag, an option). */
    static final class Value {
        final String text;
        final boolean quoted;

        Value(String text, boolean quoted) {
            this.text = text;
            this.quoted = quoted;
        }

        @Override
        public String toString() {
            return quoted ? '"' + text + '"' : text;
        }
    }

    static final class Clause {
        final String name;
        /** Null for a bare word without brackets. */
        final List<Value> values;

        Clause(String name, List<Value> values) {
            this.name = name;
            this.values = values;
        }

        /** The bare value in front of the quoted ones, if there is one: the clause's tag. */
        String tag() {
            return values != null && !values.isEmpty() && !values.get(0).quoted ? values.get(0).text : "";
        }

        /** The quoted values, in order. */
        List<String> quoted() {
            List<String> texts = new ArrayList<>();
            if (values != null)
                for (Value value : values)
                    if (value.quoted)
                        texts.add(value.text);
            return texts;
        }

        @Override
        public String toString() {
            return values == null ? name : name + values;
        }
    }

    final String name;
    final List<Clause> clauses = new ArrayList<>();
    long sequence = -1;
    boolean queued;

    Command(String name) {
        this.name = name;
    }

    @Override
    public String toString() {
        return name + clauses;
    }
}
