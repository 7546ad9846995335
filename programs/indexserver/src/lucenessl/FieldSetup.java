package lucenessl;

/**
 * How one field is indexed, from the client's option text: V and a digit the
 * value type (0 text, 1 32-bit integer, 2 64-bit integer, 3 date, 4
 * enumeration, 5 boolean), A and a digit the analyzer (0 the default, which
 * keeps the whole value as one term), B binary (stored only), N numeric (the
 * value is a number, indexed as one), U not stored.
 */
final class FieldSetup {
    static final int TEXT = 0;
    static final int INT64 = 2;

    static final FieldSetup DEFAULT = new FieldSetup("");

    final String options;
    final int type;
    final int analyzer;
    final boolean binary;
    final boolean numeric;
    final boolean stored;

    FieldSetup(String options) {
        this.options = options;
        int value = optionValue(options, 'V');
        type = value <= 5 ? value : TEXT;
        analyzer = optionValue(options, 'A');
        binary = options.indexOf('B') >= 0;
        // A number needs a type; a text field marked numeric stays text.
        numeric = options.indexOf('N') >= 0 && type != TEXT;
        stored = options.indexOf('U') < 0;
    }

    /** A 64-bit number when indexed as a number, else a 32-bit one. */
    boolean isLong() {
        return type == INT64;
    }

    /** Whether the value is split into words, rather than kept as one term. */
    boolean analysed() {
        return type == TEXT && !numeric && analyzer != 0;
    }

    static int optionValue(String options, char letter) {
        int at = options.indexOf(letter);
        if (at < 0)
            return 0;
        int value = 0;
        for (int i = at + 1; i < options.length() && Character.isDigit(options.charAt(i)); ++i)
            value = value * 10 + (options.charAt(i) - '0');
        return value;
    }
}
