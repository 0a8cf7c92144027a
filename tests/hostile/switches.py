"""Sources that hold all their mutants at once: a number in the program says which of them is to be there, none with 0.

Compiling and linking a program for each mutant costs more than trying it. So each mutant becomes the other branch of a switch around the
smallest statement or expression that it changes: `if (corvMutant(7)) { a != b; } else { a == b; }`. Where these stand is asked of clang
(python3-clang-14). A branch that the compiler refuses is left out again, and tried in a build of its own.
"""

import re
from dataclasses import dataclass

from clang.cindex import Config, CursorKind, Index

Config.library_file = "libclang-14.so.1"

# The number stands behind a mark by which it is found in the program, and is asked for each time. A program that finds the file notes
# in it which of its switches were asked.
HEADER = r"""
#pragma once
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
struct CorvMutants
{
    char mark[16];
    int number;
};
inline volatile CorvMutants corvMutants = {{'c', 'o', 'r', 'v', '-', 'm', 'u', 't', 'a', 'n', 't', ' ', 'i', 's', ':', ' '}, 0};
inline unsigned char *corvReached()
{
    static unsigned char *const reached = [] {
        const int file = ::open("/opt/reached", O_RDWR | O_CLOEXEC);
        void *const map = file < 0 ? MAP_FAILED : ::mmap(nullptr, %SIZE%, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (file >= 0)
            ::close(file);
        return map == MAP_FAILED ? nullptr : static_cast<unsigned char *>(map);
    }();
    return reached;
}
inline unsigned char *const corvReachedEarly = corvReached();
inline bool corvMutant(int number)
{
    if (unsigned char *const reached = corvReached())
        reached[number] = 1;
    return corvMutants.number == number;
}
"""
MARK = b"corv-mutant is: "

BODIES = (CursorKind.COMPOUND_STMT, CursorKind.CASE_STMT, CursorKind.DEFAULT_STMT)
CHAINED = re.compile(r"&&|\|\|")


@dataclass
class Slot:
    """A statement (with its semicolon) or an expression: where it stands, and which of both."""

    begin: int
    end: int
    statement: bool
    chained: bool = False


def changed(line, other):
    """Where the line is changed, as (begin, end) in it, and what stands there then."""
    if not other:
        code = line.split("//")[0].rstrip()
        return len(line) - len(line.lstrip()), len(code), ";"
    begin = 0
    while begin < min(len(line), len(other)) and line[begin] == other[begin]:
        begin += 1
    end = 0
    while end < min(len(line), len(other)) - begin and line[-1 - end] == other[-1 - end]:
        end += 1
    return begin, len(line) - end, other[begin : len(other) - end]


def _is_expression(cursor):
    return cursor.kind.is_expression() and cursor.kind != CursorKind.LAMBDA_EXPR


def slots(path, flags):
    """All of them in a source, with those that include them before those within, and the places of constexpr."""
    unit = Index.create().parse(str(path), args=flags)
    text = path.read_bytes()
    found, constants = {}, []

    def note(cursor, is_body):
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        if begin >= end:
            return
        if is_body and (cursor.kind == CursorKind.RETURN_STMT or cursor.kind.is_expression()):
            semicolon = re.compile(rb"\s*;").match(text, end)
            if semicolon:
                found.setdefault((begin, semicolon.end()), Slot(begin, semicolon.end(), True))
        if _is_expression(cursor):
            slot = found.setdefault((begin, end), Slot(begin, end, False))
            if cursor.kind == CursorKind.BINARY_OPERATOR:
                first = next(cursor.get_children(), None)
                if first and CHAINED.match(text[first.extent.end.offset :].decode(errors="replace").lstrip()):
                    slot.chained = True

    def walk(cursor, is_body):
        if str(cursor.location.file) != str(path) and cursor.location.file is not None:
            return
        note(cursor, is_body)
        if cursor.kind == CursorKind.VAR_DECL:
            begin = text.rfind(b"constexpr", 0, cursor.location.offset)
            if begin >= 0 and not re.search(rb"[;{}]", text[begin : cursor.location.offset]):
                constants.append((begin, cursor.extent.end.offset))
        children = list(cursor.get_children())
        for at, child in enumerate(children):
            body = cursor.kind in BODIES
            if cursor.kind == CursorKind.IF_STMT:
                # Then and else are what begins behind the parenthesis of the condition.
                between = text[children[at - 1].extent.end.offset : child.extent.start.offset] if at else b""
                body = at > 0 and re.fullmatch(rb"\s*(\)|;?\s*else)\s*", between) is not None
            elif cursor.kind in (CursorKind.FOR_STMT, CursorKind.WHILE_STMT, CursorKind.CXX_FOR_RANGE_STMT):
                body = at == len(children) - 1
            walk(child, body)

    for cursor in unit.cursor.get_children():
        if cursor.location.file is not None and cursor.location.file.name == str(path):
            walk(cursor, False)
    return sorted(found.values(), key=lambda slot: (slot.begin, -slot.end, not slot.statement)), constants


def ways(text, every, begin, end):
    """The slots in which a change of that place can be switched, the best first."""
    around = sorted((slot for slot in every if slot.begin <= begin and end <= slot.end), key=lambda slot: slot.end - slot.begin)
    statement = next((slot for slot in around if slot.statement), None)
    expressions = [slot for slot in around if not slot.statement and (not statement or slot.end < statement.end)]
    while len(expressions) > 1 and expressions[0].chained and expressions[1].chained:
        expressions.pop(0)
    if not statement:
        return expressions
    # Within a lambda of the statement stand declarations and conditions, of which only an expression can be switched.
    if re.search(rb"[\])] \{|mutable|\) -> ", text[statement.begin : begin]):
        return [*expressions[:4], statement]
    return [statement, *expressions[:4]]


class Switched:
    """A source with its mutants in it. `alone` are the numbers of those that cannot be switched."""

    def __init__(self, path, flags, mutants):
        """`mutants` are (number, line's number, line, changed line)."""
        self.text = path.read_bytes()
        every, self._constants = slots(path, flags)
        lines = self.text.split(b"\n")
        starts = [0]
        for line in lines:
            starts.append(starts[-1] + len(line) + 1)
        self._changes, self._ways, self._way, self.alone = {}, {}, {}, set()
        for number, at, line, other in mutants:
            begin, end, instead = changed(line, other)
            place = lambda column: starts[at] + len(line[:column].encode())  # noqa: E731, B023
            self._changes[number] = (place(begin), place(end), instead.encode())
            self._ways[number] = ways(self.text, every, place(begin), place(end))
            self._way[number] = 0
            if not self._ways[number]:
                self.alone.add(number)

    def write(self):
        """The source with all switches that are left."""
        chosen = {}
        for number, options in self._ways.items():
            if number not in self.alone:
                slot = options[self._way[number]]
                chosen.setdefault((slot.begin, -slot.end, not slot.statement), (slot, []))[1].append(number)
        order = [chosen[key] for key in sorted(chosen)]
        self._variants, self._slots, out, length = [], [], [], 0
        free = [(begin, end) for begin, end in self._constants
                if any(begin < slot.begin and slot.end <= end for slot, _ in order)]

        def put(data):
            nonlocal length
            out.append(data)
            length += len(data)

        def plain(begin, end):
            at = begin
            for word, _ in sorted(set(free)):
                if begin <= word < end:
                    put(self.text[at:word])
                    at = word + len(b"constexpr")
                    is_static = self.text[:word].endswith(b"static ")
                    put(b"const" if not self.text.startswith(b" const ", at) else b"" if is_static else b"static")
            put(self.text[at:end])

        def variant(number, slot):
            begin, end, instead = self._changes[number]
            # An optional beside a truth value would make an optional of this, which is always true.
            if self.text[begin:end] == b"!" and not instead and not slot.statement and slot.begin == begin:
                instead = b"!!"
            put(self.text[slot.begin : begin] + instead + self.text[end : slot.end])

        def emit(begin, end, index):
            """Everything up to `end`, with the slots from the one at the index on; the index behind them."""
            while index < len(order) and order[index][0].begin < end:
                slot, numbers = order[index]
                plain(begin, slot.begin)
                start = length
                put(b"{ " if slot.statement else b"(")
                for number in numbers:
                    put(b"if (corvMutant(%d)) { " % number if slot.statement else b"corvMutant(%d) ? (" % number)
                    at = length
                    variant(number, slot)
                    self._variants.append((at, length, number))
                    put(b" } else " if slot.statement else b") : ")
                put(b"{ " if slot.statement else b"(")
                index = emit(slot.begin, slot.end, index + 1)
                put(b" } }" if slot.statement else b"))")
                self._slots.append((start, length, slot))
                begin = slot.end
            plain(begin, end)
            return index

        emit(0, len(self.text), 0)
        self._written = b"".join(out)
        return self._written

    def refused(self, told, name):
        """Takes note of what a compiler said of the text written last. False where it cannot be laid to any switch."""
        starts = [0]
        for line in self._written.split(b"\n"):
            starts.append(starts[-1] + len(line) + 1)
        blamed = set()
        for found in re.finditer(rf"^{re.escape(name)}:(\d+):(\d+):\s+(error: (.*)|required from here)$", told, re.MULTILINE):
            place = starts[int(found[1]) - 1] + int(found[2]) - 1
            blamed |= self._blame(place, found[4] or "")
        for number in blamed:
            self._way[number] += 1
            if self._way[number] >= len(self._ways[number]):
                self.alone.add(number)
        return bool(blamed)

    def _blame(self, place, message):
        variants = [(end - begin, number) for begin, end, number in self._variants if begin <= place < end]
        if variants:
            # What is wrong in itself is so wherever it is switched.
            number = min(variants)[1]
            self._way[number] = len(self._ways[number]) - 1
            return {number}
        live = lambda slot: {number for number, options in self._ways.items()  # noqa: E731
                             if number not in self.alone and options[self._way[number]] is slot}
        for constant in re.findall(r"‘(?:\w+::|\{anonymous\}::|<unnamed>::)*(k\w+)’", message):
            for begin, end in self._constants:
                if re.search(rb"\b%s\b" % constant.encode(), self.text[begin:end]):
                    found = {number for number, options in self._ways.items() if number not in self.alone
                             and begin <= options[self._way[number]].begin and options[self._way[number]].end <= end}
                    if found:
                        # No other way makes a constant of it.
                        for number in found:
                            self._way[number] = len(self._ways[number]) - 1
                        return found
        around = [(end - begin, at) for at, (begin, end, _) in enumerate(self._slots) if begin <= place < end]
        # The second of two texts side by side is what is complained of, behind the first.
        before = [(place - end, at) for at, (_, end, _) in enumerate(self._slots) if end <= place and
                  not self._written[end:place].strip()]
        for _, at in [*sorted(before)[:1], *sorted(around)[:1]]:
            if found := live(self._slots[at][2]):
                return found
        return set()
