#include "hostile_values.h"

namespace hostile {

void PrintTo(const HostileValue& value, std::ostream* out) {
  *out << value.label;
}

const std::vector<HostileValue>& HostileValues() {
  using namespace std::string_literals;
  static const std::vector<HostileValue> values = {
      // Shell: substitution, chaining, redirection, expansion.
      {"CommandSubstitution", "$(touch @M@)"},
      {"Backquotes", "`touch @M@`"},
      {"Semicolon", "; touch @M@"},
      {"Pipe", "| touch @M@"},
      {"AndAnd", "x && touch @M@"},
      {"OrOr", "x || touch @M@ ||"},
      {"Background", "x & touch @M@ &"},
      {"DoubleQuoteBreakout", "a\" ; touch @M@ ; echo \""},
      {"SingleQuoteBreakout", "a' ; touch @M@ ; echo '"},
      {"EscapedQuoteBreakout", "\\\"; touch @M@; \\\""},
      {"RedirectOut", "> @M@"},
      {"RedirectAppendErr", "x 2>&1 >> @M@"},
      {"RedirectIn", "< /etc/passwd"},
      {"IfsExpansion", "${IFS}touch${IFS}@M@"},
      {"Variable", "$HOME$PATH"},
      {"Glob", "*"},
      {"GlobQuestion", "/?\?\?/*"},
      {"Tilde", "~root"},
      {"BraceExpansion", "{a,b}"},
      {"ProcessSubstitution", "<(touch @M@)"},
      // Line breaks and other control characters.
      {"Newline", "x\ntouch @M@"},
      {"CarriageReturnNewline", "x\r\ntouch @M@"},
      {"Tab", "\t"},
      {"EscapeSequence",
       "\x1b[31m"
       "red"
       "\x1b[0m"
       "\x07"},
      {"ControlBytes", "\x01\x02\x7f"},
      {"EmbeddedNul", "abc\0; touch @M@"s},
      {"OnlyNul", "\0"s},
      // Option-like words for the tool.
      {"OptionRemoveAll", "-A"},
      {"OptionsInOne", "-n evil -A"},
      {"DoubleDash", "--"},
      {"LongOption", "--help"},
      {"Dash", "-"},
      // Paths as names.
      {"Traversal", "../../../../../../../..@D@/evil"},
      {"DotDot", ".."},
      {"Dot", "."},
      {"Slash", "/"},
      {"AbsoluteSystemFile", "/etc/passwd"},
      {"AbsoluteWatched", "@D@/evil"},
      {"IntoConfigDir", "../white-list"},
      {"NestedTraversal", "rules/../../policy-sources"},
      {"InnerSlash", "a/b"},
      {"Backslash", "a\\b"},
      {"Empty", ""},
      {"Space", " "},
      {"PaddedSpaces", "   padded   "},
      // Length.
      {"Long5000", std::string(5000, 'A')},
      {"Long70000", std::string(70000, 'B')},
      {"LongSlashes", std::string(3000, '/')},
      {"LongLineForTheToolOutput",
       std::string(5000, 'x') + "\n" + std::string(10, 'y')},
      // Encodings.
      {"InvalidUtf8", "\xff\xfe\xfd"s},
      {"OverlongSlash",
       "\xc0\xaf"
       ".."
       "\xc0\xaf"},
      {"LoneSurrogate", "\xed\xa0\x80"},
      {"TruncatedSequence",
       "abc"
       "\xc3"},
      {"ValidNonAscii",
       "\xc3\xbc"
       "n"
       "\xc3\xaf"
       "c"
       "\xc3\xb6"
       "d"
       "\xc3\xa9"},
      {"RightToLeftOverride",
       "\xe2\x80\xae"
       "exe.txt"},
      // SQL against the audit journal.
      {"SqlTautology", "' OR '1'='1"},
      {"SqlDelete", "x'; DELETE FROM logs; --"},
      {"SqlUnion", "x' UNION SELECT username, groupname FROM logs --"},
      {"SqlDrop", "0; DROP TABLE logs"},
      {"SqlAttach", "x'; ATTACH DATABASE '@D@/evil.db' AS e; --"},
      {"SqlVacuumInto", "x'; VACUUM INTO '@D@/copy.db'; --"},
      {"SqlPragma", "0; PRAGMA writable_schema=1"},
      {"SqlNumeric", "1 OR 1=1"},
      {"SqlComment", "/* x */ --"},
      // Markup and document syntax.
      {"XmlElement", "<evil attr=\"1\"/>"},
      {"XmlCdata", "]]><![CDATA[x"},
      {"XmlEntities", "&amp;&lt;&gt;&quot;&apos;&#0;"},
      {"XmlDoctype",
       "<!DOCTYPE x [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>&e;"},
      {"JsonBreakout", "\"], \"x\": [\""},
      {"JsonObject", "{\"name\": \"r1\"}"},
      // Formats and directory syntax.
      {"FormatString", "%s%s%n%x%p"},
      {"HugeFieldWidth", "%99999999d"},
      {"SidWithCommand", "*S-1-5-21-1-2-3-1001; touch @M@"},
      {"SidSubstitution", "*S-1-5-21-1-2-3-1001,*S-$(touch @M@)"},
      {"LdapFilter", "*)(objectClass=*))(|(cn=*"},
  };
  return values;
}

}  // namespace hostile
