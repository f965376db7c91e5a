"""What the rules must know of a language. All patterns look at one line of it at a time."""

import re
from dataclasses import dataclass
from pathlib import PurePath
from typing import NamedTuple


class Swap(NamedTuple):
    r"""What matches `pattern` becomes `text`, in which \1 stands for what matched."""

    pattern: str
    text: str


@dataclass(frozen=True)
class Language:
    """One language. A pattern that is left out matches nothing."""

    # Strings, whose inside the other patterns do not see, and comments, which they do not see.
    hidden: str
    # How a line begins that is no statement, or one whose deletion would say nothing.
    no_statement: str = ""
    # The whole last line of a statement.
    statement_end: str = "(?!)"
    # What takes the place of a deleted statement; nothing, if a block may be empty.
    stand_in: str = ""
    # A line between brackets that can go by itself, without brackets that it closes; and how the
    # brackets end that are open before it.
    item: str = "(?!)"
    item_in: str = r"[(\[{]$"
    # What comes before the first word of a list whose words can go one by one.
    words: str = "(?!)"
    # What parts of a line become. The patterns see a hidden string's inside as underscores.
    swaps: tuple = ()


def any_of(*patterns):
    """Returns the pattern that matches what one of these does."""
    return "|".join(f"(?:{pattern})" for pattern in patterns)


QUOTED = any_of(
    r'"(?:\\.|[^"\\])*"',  # "text", with \" in it
    r"(?<!\d)'(?:\\.|[^'\\])*'")  # 'text'; after a digit it parts the digits of a number in C++

CPP = Language(
    hidden=any_of(QUOTED, "`[^`]*`", "//.*"),  # in backquotes: JavaScript's
    no_statement=any_of(
        "[#{}]",  # for the preprocessor, or a brace alone
        "Q_OBJECT",
        r".*[{:]$",  # opens a block, or is a label
        r".*= (delete|default);$",
        "const|let|using|auto|static|explicit|virtual|~",  # declares what is needed below
        "return [^;]",  # the function must return something
        r"(?!delete|emit|throw)[\w:<>*&, ]*[\w>&*] [*&]*\w+( =|[;({])"),  # a type and a name
    statement_end=".*;$",
    item=".+,",
    item_in=r"[\[{]$",  # a call without one of its arguments seldom compiles
    swaps=(
        Swap(r"!(?=[\w(])", ""),  # a negation
        Swap(r"(?<!=) \? ", " == false ? "),  # a condition before "?", unless it compares
        Swap(r'"_*(?=")', r"\1x"),  # a text, whose letters are underscores here
        Swap(r"'___+(?=')", r"\1x"),  # a text of JavaScript; a character of C++ is shorter
        # A condition that is no negation and holds no comparison.
        Swap(r"(?<=if \()(?!!|[^&|]*[!=]=)[^;]+(?=\) )", r"!(\1)"),
        Swap(r"(?<=while \()(?!!|[^&|]*[!=]=)[^;]+(?=\) )", r"!(\1)")))

SHELL = Language(
    hidden=any_of("'[^']*'", r"(?:^|(?<=\s))#.*"),  # "text" holds code
    no_statement=any_of(
        r"(if|then|else|elif|fi|for|while|do|done|case|esac)\b",
        r"local( \w+)+$",
        "[{}]",
        ";;",
        r"[^ (]+\) ",  # a pattern of a case, with what it does behind it
        r"[^(]+\)$",  # such a pattern alone
        r"\w+\(\)"),  # a function
    statement_end=r".*(?<![\\|&])$",  # goes on in the next line
    stand_in=":",
    words=any_of(
        r"(?:^|\s)\w+\+?=\(",  # an array
        r"\bfor \w+ in ",
        r"^\s*(install_missing|apt_install) "),  # packages
    swaps=(
        Swap(r"(?<=\s)! ", ""),  # a negation
        Swap(r"(?<=\bif )(?!! )", "! "),  # a condition
        Swap(r"(?<=\bwhile )(?!! )", "! "),
        # A test behind nothing, && or ||.
        Swap(r"(?<!if )(?<!while )(?<!! )(?<=\s)(?=\[\[? [^!])", "! "),
        # A question about a file or a text, behind && or || within a test.
        Swap(r"(?<=[^!\[] )(?=-[defLOwxsnz] [\"$/].*\])", "! "),
        Swap(r'"\$@"', "$*"),  # arguments with blanks fall to pieces
        Swap(r'(?<=\[)@(?=\]\}")', "*"),  # and the words of a list become one
        # A variable for one command: LC_ALL=C command.
        Swap(r"(?<![^\s(])(?!PATH=)[A-Z_]+=[^\s(]+ (?=[\w\"$])", "")))

PYTHON = Language(
    hidden=any_of(QUOTED, "#.*"),
    no_statement=any_of(
        r"(import|from|def|class|if|for|while|with|try|except|else|elif|finally|pass)\b",
        "[@\"')\\]}]"),  # a decorator, a docstring, the end of what began above
    statement_end=r".*(?<![:\\])$",  # opens a block, or goes on in the next line
    stand_in="pass",
    item=".+,",
    swaps=(
        Swap(r"\bnot (?!in)", ""),  # a negation
        Swap(r"(?<=\bif )(?!not ).+(?=:$)", r"not (\1)"),  # a condition
        Swap(r"(?<=\bwhile )(?!not ).+(?=:$)", r"not (\1)"),
        Swap(" and ", " or "),
        Swap(" or ", " and ")))

CMAKE = Language(
    hidden=any_of(QUOTED, "#.*"),
    no_statement=any_of(
        r"(if|elseif|else|endif|foreach|endforeach|function|endfunction|return)\(",
        r"(cmake_minimum_required|project|mark_as_advanced)\("),
    statement_end="",
    item="(?!COMMENT|VERBATIM).+",
    words=any_of(
        r"\bset\(\w+ (?!.* CACHE )",
        r"\blist\(APPEND \w+ ",
        r"\bIN ITEMS ",
        r"\btarget_\w+\(\S+ (PRIVATE|PUBLIC|INTERFACE)\s*"),
    swaps=(
        Swap(r"(?<=\bif\()NOT ", ""),  # a condition
        Swap(r"(?<=\bif\()(?!NOT )", "NOT "),
        Swap(" AND ", " OR "),
        Swap(" OR ", " AND "),
        Swap(r"\bON(?=\))", "OFF"),
        Swap(r"\bOFF(?=\))", "ON")))

# nginx's configuration: each line that ends with ";" goes, a header and a row of a map like others.
CONF = Language(hidden="#.*", no_statement=".*[{}]$", statement_end=".*;$")

# A form of the toolkit's designer: properties go, names and texts become longer.
FORM = Language(
    hidden="(?!)",
    no_statement="(?!<(property|attribute) )",
    statement_end="</(property|attribute)",
    swaps=(Swap(r'(?<=<)(?:widget|layout|spacer).*name="\w+', r"\1x"),
           Swap("(?<=>)[^<>]+(?=</string>)", r"\1x")))

# A page, a property list, the metadata: an element of one line goes, a text becomes longer. The key
# of a property list goes with its value.
MARKUP = Language(
    hidden="<!--.*-->",
    no_statement=r"(?!<[a-z]\w*[ >/].*(?:/>|</\w+>)$)",
    statement_end="(?!<key>)",
    swaps=(Swap("(?<=>)[^<>]+(?=</)", r"\1x"),))

# A menu entry: a line goes, a value becomes longer.
DESKTOP = Language(
    hidden="#.*", no_statement=r"(?!\w+=)", statement_end="", swaps=(Swap("(?<==).+", r"\1x"),))

# The presets of CMake: a line with a key goes, as long as another follows; what is on goes off.
JSON = Language(
    hidden='(?<="displayName": ").*(?=")',
    no_statement=r'(?!"(?!displayName)\w+": ("[^"]*"|\{.*\}),$)',
    statement_end=".*,$",
    swaps=(Swap('(?<=: ")ON(?=")', "OFF"), Swap('(?<=: ")OFF(?=")', "ON")))

BY_SUFFIX = {
    ".cpp": CPP, ".h": CPP, ".js": CPP, ".sh": SHELL, ".py": PYTHON, ".cmake": CMAKE, ".conf": CONF,
    ".ui": FORM, ".html": MARKUP, ".plist": MARKUP, ".xml": MARKUP, ".desktop": DESKTOP,
    ".json": JSON}


def language_of(name, text):
    """Returns the language that the rules know a file by, by its name and text, or None.

    A file that CMake configures ("prerm.in") has the language of what comes of it.
    """
    first = text.partition("\n")[0]
    if first.startswith("#!"):
        return PYTHON if "python" in first else SHELL
    path = PurePath(name.removesuffix(".in"))
    if path.name == "CMakeLists.txt":
        return CMAKE
    return BY_SUFFIX.get(path.suffix)


def code_of(text, language):
    """Returns the lines as the patterns see them: strings blackened, comments left out."""
    def blacken(found):
        return re.sub("(?<=.).(?=.)", "_", found[0]) if found[0][0] in "\"'`" else ""

    def emptied(part):
        return "\n" * part[0].count("\n")

    text = re.sub('(?s:""".*?""")', emptied, text)  # a docstring
    # What only macOS runs, up to the "else" or "endif" of it.
    text = re.sub(r"(?ms:^(?:if\(APPLE\)|#ifdef __APPLE__)$.*?^(?=#?(?:else|elif|endif)))", emptied,
                  text)
    return [re.sub(language.hidden, blacken, line).rstrip() for line in text.splitlines()]
