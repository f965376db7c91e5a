"""The changes that the rules make in a file: mistakes of one small step that anybody could make."""

import re

from mutations.changes import Change, places_of
from mutations.languages import code_of, language_of

# Words and operators that become their neighbours; blanks or brackets stand around them.
NEIGHBOURS = {
    "true": "false", "True": "False", "<": "<=", ">": ">=", "==": "!=", "===": "!==", "&&": "||",
    "+": "-", "-eq": "-ne", "-lt": "-le", "-gt": "-ge"}
SWAPPED = {**NEIGHBOURS, **{after: before for before, after in NEIGHBOURS.items()}, "*": "/"}
SWAPPED_PATTERN = re.compile(
    rf"(?<![^\s(])({'|'.join(map(re.escape, SWAPPED))})(?![^\s;,)])")
# A whole decimal number that is no part of a name, a version, an option or a template.
NUMBER = re.compile(r"""
    (?<![\w.$'#{]) (?<!\w-)       # what may not stand before it
    (?: 0 | [1-9][\d']* )
    (?= [kms] | [^\w.'<>] | $ )   # behind it: a unit of one letter, or what is no part of it
    """, re.VERBOSE)
# An address that only this machine reaches, in strings too, becomes one that everybody does.
OWN_ADDRESS = re.compile(r"(?<![\w/.])127\.0\.0\.1(?![\w.])")
EVERY_ADDRESS = "0.0.0.0"
# A word of a list, or what ends the list.
WORD = re.compile(r'(?:"[^"]*"|[^\s()"\\;&|])+|[()";&|]')


def changes_of(name, text):
    """Returns the changes that the rules make in a file that has this text."""
    language = language_of(name, text)
    if language is None:
        return []
    lines, code = text.splitlines(), code_of(text, language)
    found = []  # (the first line's number, how many lines go, what takes their place)
    for first, end in statements(code, language):
        indent = re.match(r"\s*", lines[first])[0]
        stand_in = [indent + language.stand_in] if language.stand_in else []
        found.append((first, end - first, stand_in))
    for number, closing in items(code, language):
        found.append((number, 1, [closing] if closing else []))
    for number, part in words(code, language):
        rest = without(part, lines[number])
        # A line above that ends with a backslash would go on in the line below.
        continued = number > 0 and code[number - 1].endswith("\\")
        found.append((number, 1, [rest] if rest.strip() or continued else []))
    for number, line in enumerate(code):
        if line.strip() and not line.startswith("#"):
            found += [(number, 1, [edited]) for edited in edits(lines[number], line, language)]
    changes = {}  # in this order, and once each, whichever rules make it
    for first, count, after in found:
        before = lines[first:first + count]
        places = places_of(before, lines)
        changes[Change(name, tuple(before), tuple(after), places.index(first) + 1, len(places))] = 1
    return list(changes)


def unpaired(code):
    """Returns the brackets of the code that have no partner in it."""
    brackets, earlier = re.sub(r"[^()\[\]{}]", "", code), None
    while brackets != earlier:
        earlier, brackets = brackets, re.sub(r"\(\)|\[\]|\{\}", "", brackets)
    return brackets


def statements(code, language):
    """Yields the first line of each statement that can be deleted and the line behind its last."""
    first = None
    for number, line in enumerate(map(str.strip, code)):
        if first is None and (not line or re.match(language.no_statement, line)):
            continue
        first = number if first is None else first
        whole = " ".join(code[first:number + 1])
        complete = not unpaired(whole) and whole.count('"') % 2 == 0
        if complete and re.match(language.statement_end, line):
            yield first, number + 1
        elif not line.endswith("{"):
            continue
        first = None


def items(code, language):
    """Yields the number of each line that is an item between brackets, and what must stay of it:
    the brackets at its end that were opened above."""
    open_above = ""  # the brackets that are open where the line begins
    for number, line in enumerate(code):
        unpaired_here = unpaired(line)
        opens_none = not re.search(r"[(\[{]", unpaired_here)
        if opens_none and line.endswith(unpaired_here):
            closing = unpaired_here
            item = line.removesuffix(closing).strip()
            if re.fullmatch(language.item, item) and re.search(language.item_in, open_above):
                indent = re.match(r"\s*", line)[0]
                yield number, (indent + closing if closing else "")
        open_above = unpaired(open_above + line)


def words(code, language):
    """Yields the line and the match of each word of a list that has more than one."""
    for number, line in enumerate(code):
        for begin in re.finditer(language.words, line):
            found = list(words_from(code, number, begin.end()))
            if len(found) > 1:
                yield from found


def words_from(code, number, column):
    """Yields the words of the list that begins there: up to its bracket, or its line's end."""
    within_brackets = unpaired(code[number][:column]).endswith("(")
    for line in code[number:]:
        for part in WORD.finditer(line, column):
            if part[0] in '()";&|':
                return
            yield number, part
        if not within_brackets and not line.endswith("\\"):
            return
        number, column = number + 1, 0


def without(part, line):
    """Returns the line without this part and the blanks beside it."""
    before, after = line[:part.start()], line[part.end():]
    return before.rstrip(" ") + after if before.strip() else before + after.lstrip(" ")


def edits(line, code, language):
    """Yields what a line becomes with one condition, operator, number, text or address changed."""
    found = [(part, swap.text.replace(r"\1", line[part.start():part.end()]))
             for swap in language.swaps for part in re.finditer(swap.pattern, code)]
    found += [(part, SWAPPED[part[0]]) for part in SWAPPED_PATTERN.finditer(code)]
    found += [(part, EVERY_ADDRESS) for part in OWN_ADDRESS.finditer(line, 0, len(code))]
    for part in NUMBER.finditer(code):
        value = int(part[0].replace("'", ""))
        is_status = re.search(r"\b(return|exit) $", code[:part.start()])
        if value == 1 and is_status:
            found.append((part, "0"))  # a failure becomes a success
        else:
            found.append((part, str(value + 1 if value < 1000 else 2 * value)))
    for part, text in found:
        yield line[:part.start()] + text + line[part.end():]
