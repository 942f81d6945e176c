"""Where a source can be broken: each Site is one small change of its text, found in clang's syntax tree.

All changes of a file are written into it at once; the environment variable MUTANT chooses one when a program runs (see
Mutation.h), so that hundreds of mutants need one build."""

import re
from dataclasses import dataclass, field

from clang.cindex import Cursor, CursorKind, Index

COMPARISONS = {"<": ("less", "<="), "<=": ("lessOrEqual", "<"), ">": ("greater", ">="), ">=": ("greaterOrEqual", ">"),
               "==": ("equal", "!="), "!=": ("notEqual", "==")}
JUNCTIONS = {"&&": ("both", "||"), "||": ("either", "&&")}
LEVELS = {"info": "warning", "warning": "info", "error": "warning"}


@dataclass
class Site:
    path: str
    line: int
    column: int
    kind: str
    change: str  # what becomes what
    function: str
    edits: list = field(default_factory=list)  # (begin, end, text): what is put in place of the bytes; see write
    depth: int = 0  # in the syntax tree
    source: str = ""  # the line
    number: int = 1  # among the same changes of the line

    @property
    def name(self):
        return f"{self.path}:{self.line}:{self.column} {self.kind}: {self.change}"

    def key(self):
        """The same in the next version of the file, where lines have moved."""
        return (self.path, self.function, " ".join(self.source.split()), self.kind, self.change)


class Finder:
    def __init__(self, path, text, unit, file_name):
        self.path, self.text, self.file_name = path, text, file_name
        self.lines = text.decode().splitlines()
        self.sites = []
        self.visit(unit.cursor, [], "")

    def visit(self, node: Cursor, ancestors, function):
        here = node.location.file
        if ancestors and len(ancestors) == 1 and (here is None or here.name != self.file_name):
            return
        if node.kind in (CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR,
                         CursorKind.DESTRUCTOR, CursorKind.FUNCTION_TEMPLATE):
            function = node.spelling
        self.look(node, ancestors, function)
        for child in node.get_children():
            self.visit(child, [*ancestors, node], function)

    def add(self, node, kind, change, function, edits, depth):
        start = node.extent.start
        self.sites.append(Site(self.path, start.line, start.column, kind, change, function,
                               edits, depth, self.lines[start.line - 1]))

    def slice(self, begin, end):
        return self.text[begin:end].decode()

    def look(self, node, ancestors, function):
        depth = len(ancestors)
        begin, end = node.extent.start.offset, node.extent.end.offset
        children = list(node.get_children())
        if any(a.kind == CursorKind.STATIC_ASSERT for a in ancestors):
            return
        self.look_at_operator(node, children, function, depth)
        if node.kind in (CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.CONDITIONAL_OPERATOR):
            condition = self.condition(node, children)
            if condition is not None:
                self.add(condition, "condition", "negated", function,
                         [(condition.extent.start.offset, None, "(static_cast<bool>("),
                          (condition.extent.end.offset, None, ") != mutation::on(NUMBER))")], depth)
        elif node.kind == CursorKind.INTEGER_LITERAL and self.slice(begin, end).strip():
            value = self.slice(begin, end)
            if re.fullmatch(r"\d+[uUlL]*", value):
                self.add(node, "constant", f"{value} + 1", function,
                         [(begin, None, "("), (end, None, " + mutation::one(NUMBER))"),
                          *self.without_constexpr(ancestors)], depth)
        elif node.kind == CursorKind.CXX_BOOL_LITERAL_EXPR:
            self.add(node, "constant", "the other one", function,
                     [(begin, None, "("), (end, None, " != mutation::on(NUMBER))"),
                      *self.without_constexpr(ancestors)], depth)
        elif node.kind == CursorKind.STRING_LITERAL:
            value = self.slice(begin, end)
            # One literal, not pieces that the compiler joins.
            if re.fullmatch(r'"(?:[^"\\]|\\.)+"', value) and function != "__builtin_FILE":
                self.add(node, "text", value, function,
                         [(begin, None, "mutation::text(NUMBER, "), (end, None, f', "?" {value})'),
                          *self.without_constexpr(ancestors)], depth)
        elif node.kind == CursorKind.CALL_EXPR:
            match = re.match(r"dbg::Debug::(info|warning|error)\((\)?)", self.slice(begin, end))
            if match and node.spelling == match.group(1):
                level, other = match.group(1), LEVELS[match.group(1)]
                place = "__builtin_FILE(), __builtin_LINE())" if match.group(2) else ""
                self.add(node, "level", f"{level} -> {other}", function,
                         [(begin, begin + match.end(),
                           f"(mutation::on(NUMBER) ? &dbg::Debug::{other} : &dbg::Debug::{level})({place}")], depth)
        if ancestors and ancestors[-1].kind == CursorKind.COMPOUND_STMT and node.kind in (
                CursorKind.CALL_EXPR, CursorKind.UNEXPOSED_EXPR, CursorKind.CXX_METHOD):
            what = " ".join(self.slice(begin, end).split())
            self.add(node, "statement", f"left out: {what[:60]}", function,
                     [(begin, None, "if (!mutation::on(NUMBER)) ")], depth)

    def look_at_operator(self, node, children, function, depth):
        if node.kind == CursorKind.BINARY_OPERATOR and len(children) == 2:
            left, right = children
        elif node.kind == CursorKind.CALL_EXPR and node.spelling.startswith("operator") and len(children) == 3:
            left, _, right = children
        else:
            return
        between = (left.extent.end.offset, right.extent.start.offset)
        match = re.search(r"\S+", self.slice(*between)) if between[0] <= between[1] else None
        if match is None:
            return
        operator = match.group()
        begin = between[0] + match.start()
        if operator in COMPARISONS:
            name, other = COMPARISONS[operator]
            edits = [(left.extent.start.offset, None, f"mutation::{name}(NUMBER, "), (begin, begin + len(operator), ","),
                     (right.extent.end.offset, None, ")")]
        elif operator in JUNCTIONS:
            name, other = JUNCTIONS[operator]
            edits = [(left.extent.start.offset, None,
                      f"mutation::{name}(NUMBER, [&]() -> bool {{ return static_cast<bool>("),
                     (begin, begin + len(operator), "); }, [&]() -> bool { return static_cast<bool>("),
                     (right.extent.end.offset, None, "); })")]
        else:
            return
        self.add(node, "condition" if operator in ("==", "!=", "&&", "||") else "bound", f"{operator} -> {other}",
                 function, edits, depth)

    def condition(self, node, children):
        if node.kind == CursorKind.CONDITIONAL_OPERATOR:
            return children[0] if children else None
        # `if (A; B)` and `if (T x = …)` have declarations among the children.
        found = [child for child in children if child.kind.is_expression()]
        if not found or any(child.kind in (CursorKind.VAR_DECL, CursorKind.DECL_STMT) for child in children[:-1]):
            return None
        text = self.slice(found[0].extent.start.offset, found[0].extent.end.offset)
        comparison = re.search(r"(?<![&|])(==|!=)", text)  # negated as an operator already
        return None if comparison and "&&" not in text and "||" not in text else found[0]

    def without_constexpr(self, ancestors):
        """What depends on the environment is no constant expression."""
        for ancestor in ancestors:
            if ancestor.kind != CursorKind.VAR_DECL:
                continue
            begin, end = ancestor.extent.start.offset, ancestor.extent.end.offset
            match = re.search(r"\bconstexpr (const char\* )?", self.slice(begin, end))
            if match:
                text = "const char* const " if match.group(1) else "const "
                return [(begin + match.start(), begin + match.end(), text)]
        return []


def find(path, file_name, arguments):
    unit = Index.create().parse(file_name, args=arguments)
    wrong = [d for d in unit.diagnostics if d.severity >= 3]
    if wrong:
        raise RuntimeError(f"{path}: {wrong[0]}")
    with open(file_name, "rb") as file:
        return Finder(path, file.read(), unit, file_name).sites


def write(text, sites):
    """The text with the changes of all sites, a dictionary from numbers. A site's edits are insertions, an opening one
    and closing ones, and replacements of a token; NUMBER in them is the site's number."""
    edits = set()
    for number, site in sites.items():
        opened = False
        for begin, end, new in site.edits:
            if end is not None:
                order = (2, 0)
            elif not opened:
                order, opened = (1, site.depth), True  # the outer one first
            else:
                order = (0, -site.depth)  # what closes stands before what opens, the inner one first
            edits.add((begin, order, end or begin, new.replace("NUMBER", str(number))))
    done, result = 0, []
    for begin, _, end, new in sorted(edits):
        result += [text[done:begin], new.encode()]
        done = end
    return b"".join([*result, text[done:]])
