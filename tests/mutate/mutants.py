# SPDX-License-Identifier: Apache-2.0
"""Mutants of a C++ source: small changes, each of which a good test notices.

The source is taken apart into tokens, as clang-format lays it out: a binary operator has a blank on either side, which
tells it from a pointer's star, a reference's ampersand and a template's brackets. A mutant keeps the number of lines.
"""

import dataclasses
import re

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<preprocessor>^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
  | (?P<string>"(?:[^"\\\n]|\\.)*"|'(?:[^'\\\n]|\\.)+')
  | (?P<number>\b(?:0[xX][0-9a-fA-F']+|[0-9][0-9']*)[uUlL]*\b)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<operator><<=|>>=|->\*?|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|::|[-+*/%&|^~!<>=?:;,.(){}\[\]])
""", re.X | re.S | re.M)

# What each binary operator becomes.
BINARY = {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
          "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"], "<<": [">>"],
          ">>": ["<<"], "&": ["|"], "|": ["&"], "+=": ["-="], "-=": ["+="], "*=": ["/="]}
UNARY = {"++": "--", "--": "++", "!": "", "~": ""}
WORDS = {"true": "false", "false": "true"}
LEAVING = {"return", "continue", "break"}
# What can begin a statement and is no expression.
KEYWORDS = {"if", "else", "for", "while", "do", "switch", "case", "default", "return", "break", "continue", "goto", "const",
            "constexpr", "static", "auto", "using", "namespace", "struct", "class", "enum", "union", "template", "extern",
            "inline", "static_assert", "typedef", "int", "char", "bool", "void", "unsigned", "signed", "long", "short",
            "alignas", "try", "catch", "throw", "operator", "explicit", "public", "private", "protected"}


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclasses.dataclass(frozen=True)
class Mutant:
    line: int       # of its beginning, from 1
    start: int      # what is replaced
    end: int
    text: str       # by what
    before: str     # the line as it is, without the blanks around it; of a longer piece its first line
    after: str      # and as it becomes


def tokens(source):
    found = []
    for match in TOKEN.finditer(source):
        if match.lastgroup not in ("comment", "preprocessor"):
            found.append(Token(match.lastgroup, match[0], match.start(), match.end()))
    return found


def closing(parts, at):
    """The index of the bracket that closes the one at this index."""
    pairs = {"(": ")", "{": "}", "[": "]"}
    depth = 0
    for index in range(at, len(parts)):
        if parts[index].text == parts[at].text:
            depth += 1
        elif parts[index].text == pairs[parts[at].text]:
            depth -= 1
            if depth == 0:
                return index
    raise ValueError("a bracket is not closed")


def left_out(parts):
    """The indices of tokens in static assertions and attributes, which are judged when they are compiled."""
    out = set()
    for index, part in enumerate(parts[:-1]):
        if part.text in ("static_assert", "__attribute__", "alignas") and parts[index + 1].text == "(":
            out.update(range(index, closing(parts, index + 1) + 1))
    return out


def statement_end(parts, at):
    """The index of the semicolon that ends the statement beginning here, or None for a block."""
    index = at
    while index < len(parts):
        if parts[index].text in ("(", "{", "["):
            index = closing(parts, index)
        elif parts[index].text == ";":
            return index
        elif parts[index].text in (")", "}", "]"):
            return None
        index += 1
    return None


def begins_statement(parts, at):
    """Tells whether a statement begins at this index."""
    if at == 0:
        return False
    before = parts[at - 1].text
    if before in (";", "{", "}", "else", ":"):
        return True
    if before != ")":
        return False
    # Behind the condition of an if, for or while.
    depth = 0
    for index in range(at - 1, -1, -1):
        if parts[index].text == ")":
            depth += 1
        elif parts[index].text == "(":
            depth -= 1
            if depth == 0:
                return index > 0 and parts[index - 1].text in ("if", "for", "while")
    return False


def expression_statement(parts, at):
    """The index of the end of a call or assignment that begins here as a statement of its own, or None."""
    first = parts[at]
    if first.kind != "word" or first.text in KEYWORDS or not begins_statement(parts, at):
        return None
    index = at + 1
    while index < len(parts):
        if parts[index].text in ("::", ".", "->") and parts[index + 1].kind == "word":
            index += 2
        elif parts[index].text == "[":
            index = closing(parts, index) + 1
        else:
            break
    if parts[index].text not in ("(", "=", "+=", "-=", "*="):
        return None
    return statement_end(parts, at)


class Source:
    def __init__(self, text):
        self.text = text
        self.parts = tokens(text)

    def mutant(self, start, end, new):
        first = self.text.rfind("\n", 0, start) + 1
        last = self.text.find("\n", end)
        # The number of lines stays.
        new += "\n" * (self.text.count("\n", start, end) - new.count("\n"))
        return Mutant(self.text.count("\n", 0, start) + 1, start, end, new,
                      " ".join(self.text[first:last].split()),
                      " ".join((self.text[first:start] + new + self.text[end:last]).split()))

    def spaced(self, part):
        return self.text[part.start - 1:part.start].isspace() and self.text[part.end:part.end + 1].isspace()

    def of_operators(self, out):
        for index, part in enumerate(self.parts):
            if index in out:
                continue
            if part.text in BINARY and self.spaced(part):
                for new in BINARY[part.text]:
                    yield self.mutant(part.start, part.end, new)
            elif part.text in UNARY and self.parts[index - 1].text != "operator":
                yield self.mutant(part.start, part.end, UNARY[part.text])

    def of_constants(self, out):
        for index, part in enumerate(self.parts):
            if index in out:
                continue
            if part.text in WORDS:
                yield self.mutant(part.start, part.end, WORDS[part.text])
            elif part.kind == "number":
                digits = part.text.rstrip("uUlL").replace("'", "")
                value = int(digits, 16 if digits[:2].lower() == "0x" else 8 if digits[0] == "0" and digits != "0" else 10)
                for other in (value + 1, value - 1):
                    if other >= 0:
                        yield self.mutant(part.start, part.end, str(other))

    def of_conditions(self):
        for index, part in enumerate(self.parts):
            if part.text != "if" or self.parts[index + 1].text != "(":
                continue
            close = closing(self.parts, index + 1)
            open_, end = self.parts[index + 1], self.parts[close]
            condition = self.text[open_.end:end.start]
            if ";" not in condition and "=" not in condition.replace("==", "").replace("!=", "").replace(
                    "<=", "").replace(">=", ""):
                yield self.mutant(open_.start, end.end, f"(!({condition}))")
            if self.parts[close + 1].text in LEAVING:
                last = statement_end(self.parts, close + 1)
                if self.parts[last + 1].text != "else":
                    yield self.mutant(part.start, self.parts[last].end, ";")

    def of_statements(self):
        for index in range(len(self.parts)):
            last = expression_statement(self.parts, index)
            if last is not None:
                yield self.mutant(self.parts[index].start, self.parts[last].end, ";")

    def mutants(self):
        """All mutants, in order of their place."""
        out = left_out(self.parts)
        found = [*self.of_operators(out), *self.of_constants(out), *self.of_conditions(), *self.of_statements()]
        return sorted(found, key=lambda mutant: (mutant.start, mutant.end, mutant.text))


def apply(text, mutant):
    return text[:mutant.start] + mutant.text + text[mutant.end:]


def mutants(text):
    return Source(text).mutants()
