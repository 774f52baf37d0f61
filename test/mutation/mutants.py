"""Makes small wrong versions of a C++ source as this project lays them out: spaces around
binary operators, braces around every body."""

import re
import typing

import product

TOKEN = re.compile(r"""
    (?P<space>\s+|//[^\n]*)
  | (?P<directive>\#[^\n]*)
  | (?P<string>"(?:\\.|[^"\\\n])*")
  | (?P<char>'(?:\\.|[^'\\\n])+')
  | (?P<number>\d[\w.]*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<mark>::|->|<<|[=!<>]=|&&|\|\||\+\+|--|.)
    """, re.VERBOSE)
OPENING = {"(": ")", "[": "]", "{": "}"}
OPERATORS = {"==": ["!="], "!=": ["=="], "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"],
             "<": ["<=", ">"], ">": [">=", "<"], "<=": ["<", ">="], ">=": [">", "<="],
             "++": ["--"], "--": ["++"]}
CONSTANTS = {"true": ["false"], "false": ["true"], "EXIT_SUCCESS": ["EXIT_FAILURE"],
             "EXIT_FAILURE": ["EXIT_SUCCESS", "2"], "badbit": ["failbit", "eofbit", "goodbit"],
             **product.CONSTANTS}
NAMES = {"begin": ["end"], "end": ["begin"], "find": ["rfind"], "cout": ["cerr"], "cerr": ["cout"],
         "find_last_of": ["find_first_of", "find_last_not_of"],
         "find_first_of": ["find_last_of", "find_first_not_of"],
         "starts_with": ["ends_with"], "any_of": ["all_of", "none_of"],
         "runtime_error": ["logic_error", "exception"], "failure": ["exception"],
         "uint32_t": ["uint16_t", "uint64_t"], "uint64_t": ["uint32_t", "uint16_t"],
         "int64_t": ["uint32_t", "int8_t"], "try_emplace": ["insert_or_assign"], **product.NAMES}
WORDS = {"if", "while", "for", "switch", "catch", "return", "throw", "sizeof"}


class Mutant(typing.NamedTuple):
    kind: str
    start: int
    end: int
    text: str


class Source:
    def __init__(self, text):
        self.text = text
        found = [match for match in TOKEN.finditer(text) if match.lastgroup != "space"]
        found = [match for match in found if match.lastgroup != "directive"]
        self.kinds = [match.lastgroup for match in found]
        self.tokens = [match.group() for match in found]
        self.starts = [match.start() for match in found]
        self.ends = [match.end() for match in found]
        self.partner = {}
        opened = []
        for index, token in enumerate(self.tokens):
            if token in OPENING:
                opened.append(index)
            elif token in OPENING.values():
                self.partner[index] = opened.pop()
                self.partner[self.partner[index]] = index

    def at(self, index):
        return self.tokens[index] if 0 <= index < len(self.tokens) else ""

    def between(self, first, last):
        """The text from one token to another, both included."""
        return self.text[self.starts[first]:self.ends[last]]

    def edit(self, kind, first, last, text):
        return Mutant(kind, self.starts[first], self.ends[last], text)

    def is_binary(self, index):
        """Whether spaces stand around it, as around neither a template's bracket nor a sign."""
        start, end = self.starts[index], self.ends[index]
        return self.text[start - 1].isspace() and self.text[end].isspace()

    def operand(self, index, step):
        """The far end of an operator's operand to the right (step 1) or left (-1)."""
        ends = {",", ";", "?", ":", "=", "{", "}", "return",
                *(OPENING.values() if step > 0 else OPENING)}
        last, index = index, index + step
        while self.at(index) not in ends and not (
                self.at(index) in {"<<", *OPERATORS} and self.is_binary(index)):
            if index in self.partner:
                index = self.partner[index]
            last, index = index, index + step
        return last

    def pieces(self, opening):
        """What commas divide a bracket's inside into, as (first, last)."""
        closing = self.partner[opening]
        pieces, first, index = [], opening + 1, opening + 1
        while index <= closing:
            if index == closing or self.at(index) == ",":
                if first < index:
                    pieces.append((first, index - 1))
                first = index + 1
            elif self.at(index) in OPENING:
                index = self.partner[index]
            index += 1
        return pieces

    def is_block(self, index):
        before = self.at(index - 1)
        if before in {")", "{", "}", ";", "const", "override", "else", "try", "struct",
                      "namespace"}:
            return before != "{" or self.is_block(index - 1)
        return self.at(index - 2) in {"namespace", "class", "struct"} or (
            self.at(index - 2) == "::" and self.at(index - 4) == "class")

    def parameters(self, opening):
        """Whether a round bracket declares what it holds."""
        return any(self.at(first) == "const" or any(
            self.kinds[i] == "name" and self.kinds[i + 1] == "name" or
            self.at(i + 1) in {"&", "*"} and self.kinds[i + 2] == "name" and not self.is_binary(i + 1)
            for i in range(first, last)) for first, last in self.pieces(opening))


def literals(source):
    for index, kind in enumerate(source.kinds):
        token = source.tokens[index]
        if kind == "string":
            units = re.findall(r"\\x[0-9a-f]+|\\.|.", token[1:-1])
            for other in units[:-1], [], ["X", *units[1:]]:
                yield source.edit("literals", index, index, '"' + "".join(other) + '"')
        elif kind == "char":
            for other in "'X'", "'\\0'":
                yield source.edit("literals", index, index, other)


def numbers(source):
    for index, kind in enumerate(source.kinds):
        if kind == "number":
            value = int(source.tokens[index])
            for other in value + 1, value - 1, 0:
                yield source.edit("constants", index, index, str(other))
            if source.at(index - 1) == "-" and not source.is_binary(index - 1):
                yield source.edit("constants", index - 1, index, str(value))


def words(source):
    for kind, table in ("constants", CONSTANTS), ("names", NAMES):
        for index, token in enumerate(source.tokens):
            for other in table.get(token, ()) if source.kinds[index] == "name" else ():
                yield source.edit(kind, index, index, other)
    function = set()
    for index, token in enumerate(source.tokens):
        # Another variable that the function has named by then.
        if source.text[source.starts[index] - 1] == "\n":
            function = set()
        function.add(token)
        if token in product.VARIABLES and source.at(index - 1) not in {".", "->", "::"}:
            for other in sorted(function & set(product.VARIABLES[token])):
                yield source.edit("names", index, index, other)


def operators(source):
    for index, token in enumerate(source.tokens):
        if source.kinds[index] != "mark":
            continue
        if token == "!":
            yield source.edit("operators", index, index, "")
        if token in {"++", "--"}:
            yield source.edit("operators", index, index, OPERATORS[token][0])
        if token not in {"<<", *OPERATORS} or not source.is_binary(index):
            continue
        first, last = source.operand(index, -1), source.operand(index, 1)
        left, right = source.between(first, index - 1), source.between(index + 1, last)
        if '"' not in left + right:
            for other in OPERATORS.get(token, ()):
                yield source.edit("operators", index, index, other)
        if token in {"+", "<<"} and source.kinds[index + 1] != "string":
            yield source.edit("operators", index, last, "")
        if token == "+":
            if source.at(first - 1) != "+" and source.kinds[first] != "string":
                yield source.edit("operators", first, index, "")
            if not right.isdigit():
                yield source.edit("swaps", first, last, f"{right} + {left}")
        if right == "std::endl":
            yield source.edit("statements", index + 1, last, "'\\n'")
        if token == "<<" and source.at(index + 1) in {'"\\n"'}:
            yield source.edit("statements", index + 1, index + 1, "std::endl")


def conditions(source):
    for index, token in enumerate(source.tokens):
        if token in {"if", "while"}:
            first, last = index + 2, source.partner[index + 1] - 1
            condition = source.between(first, last)
            others = ["true", "false"]
            if re.search(r"&&|\|\|", condition) or not re.search(r"^!|[!=]=", condition):
                others.append(f"!({condition})")
            for other in others:
                yield source.edit("conditions", first, last, other)
        if token == "for" and source.at(source.partner[index + 1] - 1) != ")":
            semicolons = [i for i in range(index, source.partner[index + 1])
                          if source.at(i) == ";"]
            if len(semicolons) == 2:
                yield source.edit("conditions", semicolons[0] + 1, semicolons[1] - 1, "false")
        if token == "?":
            first = source.operand(index, -1)
            colon = next(i for i in range(index, len(source.tokens)) if source.at(i) == ":")
            last = source.operand(colon, 1)
            one, other = source.between(index + 1, colon - 1), source.between(colon + 1, last)
            yield source.edit("conditions", index + 1, last, f"{other} : {one}")
            yield source.edit("conditions", first, last, one)
            yield source.edit("conditions", first, last, other)


def statements(source):
    """Each statement left out, and one that leaves a loop or a function made another."""
    starts = [0]
    index = 0
    while index < len(source.tokens):
        token = source.at(index)
        if token == "{" and source.is_block(index):
            starts.append(index + 1)
        elif token == "{":
            index = source.partner[index]
        elif token == "}":
            starts.pop()
            if source.at(index + 1) not in {")", ",", ";"} and not (
                    source.at(index + 1) == "print"):
                starts[-1] = index + 1
        elif token == ":" and source.at(index - 1) in {"public", "private"}:
            starts[-1] = index + 1
        elif token == "(" and "{" not in source.between(index, source.partner[index]):
            index = source.partner[index]
        elif token == "for":
            index = source.partner[index + 1]
        elif token == ";":
            first = starts[-1]
            starts[-1] = index + 1
            statement = source.between(first, index)
            declares = (source.text[source.starts[first] - 1] == "\n" or
                        source.at(first) in {"using", "class"} or
                        source.at(index - 1) == "delete" or
                        not re.search(r"[(=]|<<|^(return|continue)\b", statement))
            if not declares:
                yield source.edit("statements", first, index, ";")
            if source.at(first) == "continue":
                yield source.edit("statements", first, first, "break")
        index += 1


def swaps(source):
    """Neighbours within the brackets of a call or a list in each other's place, and the
    elements of a list left out."""
    for index, token in enumerate(source.tokens):
        call = token == "(" and source.at(index - 1) not in WORDS and (
            source.kinds[index - 1] == "name" or source.at(index - 1) == ">")
        values = token == "{" and not source.is_block(index)
        if not (call and not source.parameters(index) or values):
            continue
        pieces = source.pieces(index)
        for one, other in zip(pieces, pieces[1:]):
            yield source.edit("swaps", one[0], other[1], source.between(*other) +
                              source.text[source.ends[one[1]]:source.starts[other[0]]] +
                              source.between(*one))
        if values and len(pieces) > 1:
            for first, last in pieces:
                end = last + (source.at(last + 1) == ",")
                yield source.edit("statements", first, end, "")


def mutants(text):
    """The wrong versions of the text, each once, in the order of their places."""
    source = Source(text)
    found = {}
    for maker in literals, numbers, words, operators, conditions, statements, swaps:
        for mutant in maker(source):
            whole = text[:mutant.start] + mutant.text + text[mutant.end:]
            if " ".join(whole.split()) != " ".join(text.split()):
                found.setdefault(whole, mutant)
    return sorted(found.values(), key=lambda mutant: (mutant.start, mutant.end))
