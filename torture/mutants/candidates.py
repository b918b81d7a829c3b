"""Finds what can be changed in a source file, by the compiler's own reading of it."""
import re

from clang.cindex import Cursor, CursorKind, Index, TypeKind

from mutant import Mutant

# What system headers take for granted of the compiler that the tree is built with.
AS_GCC = ["-D_Bool=bool"]
OPERATORS = {
    "<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "&": "|", "|": "&", "^": "&", "<<": ">>",
    ">>": "<<", "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "&=": "|=", "|=": "&=", "^=": "|=",
    "<<=": ">>=", ">>=": "<<=",
}
COMPARISONS = ("<", "<=", ">", ">=", "==", "!=")
FUNCTIONS = (CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR,
             CursorKind.DESTRUCTOR, CursorKind.FUNCTION_TEMPLATE, CursorKind.CONVERSION_FUNCTION)
CLASSES = (CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL, CursorKind.CLASS_TEMPLATE,
           CursorKind.CLASS_TEMPLATE_PARTIAL_SPECIALIZATION)
OWNERS = re.compile(r"(const )?std::(shared_ptr|unique_ptr)<")
# What takes its arguments in either order.
SYMMETRIC = re.compile(r"_mm\d*_(and|or|xor|add|mullo|mulhi|cmpeq)_|(min|max)$")
# What the compiler must know while it compiles cannot be switched when the program runs.
COMPILED_IN = (CursorKind.STATIC_ASSERT, CursorKind.ENUM_DECL)


def find(path, name, arguments, files):
    """The candidates in `files` (names by paths), as the compiler meets them in the file `path`."""
    unit = Index.create().parse(path, args=[*arguments, *AS_GCC])
    errors = [one for one in unit.diagnostics if one.severity >= 3]
    if errors:
        raise RuntimeError(f"{name}: {errors[0]}; the tree must compile before it is mutated")
    return Finder(files).visit_all(unit.cursor)


class Finder:
    def __init__(self, files):
        self.files = files
        self.texts = {}
        self.found = []

    def visit_all(self, unit):
        for child in unit.get_children():
            file = child.location.file
            if file is not None and file.name in self.files:
                self.visit(child, [], "")
        return self.found

    def source(self, path):
        if path not in self.texts:
            with open(path, "rb") as file:
                self.texts[path] = file.read()
        return self.texts[path]

    def visit(self, cursor, above, function):
        if cursor.kind in COMPILED_IN or self.is_compiled_in(cursor):
            return
        if cursor.kind in FUNCTIONS or cursor.kind in CLASSES:
            function = qualified(cursor)
        self.look(cursor, above, function)
        for child in cursor.get_children():
            self.visit(child, [*above, cursor], function)

    def is_compiled_in(self, cursor):
        if cursor.kind not in FUNCTIONS and cursor.kind != CursorKind.VAR_DECL:
            return False
        path, start, end = self.extent(cursor)
        head = re.split(rb"[{=;]", self.source(path)[start:end], maxsplit=1)[0] if path else b""
        return b"constexpr" in head and cursor.kind in FUNCTIONS

    def extent(self, cursor):
        start, end = cursor.extent.start, cursor.extent.end
        if start.file is None or start.file.name not in self.files or end.offset <= start.offset:
            return None, 0, 0
        return start.file.name, start.offset, end.offset

    def text(self, cursor):
        path, start, end = self.extent(cursor)
        return self.source(path)[start:end].decode() if path else ""

    def around(self, cursor):
        """The characters before and behind, white space aside."""
        path, start, end = self.extent(cursor)
        if path is None:
            return "", ""
        source = self.source(path)
        return source[:start].rstrip()[-1:].decode(), source[end:].lstrip()[:1].decode()

    def add(self, cursor, function, kind, changed, shown, text=None, form="expression"):
        path, start, end = self.extent(cursor)
        if path is not None:
            self.found.append(Mutant(self.files[path], function, start, end, changed, kind,
                                     text or self.text(cursor), shown, form))

    def look(self, cursor, above, function):
        kind = cursor.kind
        if kind in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR):
            self.look_at_operator(cursor, function, OPERATORS)
        elif kind == CursorKind.UNARY_OPERATOR:
            self.look_at_sign(cursor, function)
        elif kind in (CursorKind.INTEGER_LITERAL, CursorKind.CXX_BOOL_LITERAL_EXPR):
            self.look_at_constant(cursor, above, function)
        elif kind in (CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.FOR_STMT,
                      CursorKind.CONDITIONAL_OPERATOR):
            self.look_at_condition(cursor, function)
        elif kind == CursorKind.CALL_EXPR:
            self.look_at_call(cursor, function)
        elif kind == CursorKind.RETURN_STMT:
            self.look_at_return(cursor, above, function)
        if kind == CursorKind.COMPOUND_STMT:
            for child in cursor.get_children():
                self.look_at_statement(child, function)

    def look_at_operator(self, cursor, function, known, left=0, right=1):
        children = list(cursor.get_children())
        if len(children) <= right:
            return
        path, start, end = self.extent(cursor)
        left_path, _, left_end = self.extent(children[left])
        right_path, right_start, _ = self.extent(children[right])
        if not path or path != left_path or path != right_path:
            return
        source = self.source(path)
        sign = source[left_end:right_start].decode().strip()
        if sign not in known:
            return
        changed = source[start:left_end].decode() + f" {known[sign]} " + source[right_start:end].decode()
        self.add(cursor, function, "operator", changed, f"{sign} -> {known[sign]}")

    def look_at_sign(self, cursor, function):
        text = self.text(cursor)
        for sign, other, shown in (("++", "--", "--"), ("--", "++", "++"), ("!", "!!", "nothing"), ("-", "", "nothing")):
            if text.startswith(sign):
                self.add(cursor, function, "operator", other + text[len(sign):], f"{sign} -> {shown}")
                return
            if len(sign) == 2 and text.endswith(sign):
                self.add(cursor, function, "operator", text[:-2] + other, f"{sign} -> {other}")
                return

    def look_at_constant(self, cursor, above, function):
        text = self.text(cursor)
        shown = next((self.text(one) for one in reversed(above) if self.text(one) != text), text)
        if text in ("true", "false"):
            changed = "false" if text == "true" else "true"
        elif re.fullmatch(r"(0[xX])?[0-9a-fA-F']+[uUlLzZ]*", text):
            changed = f"({text} + 1)"
        else:
            return
        self.add(cursor, function, "constant", changed, f"{text} -> {changed}", shown)

    def look_at_condition(self, cursor, function):
        opening, closing, values = {
            CursorKind.IF_STMT: ("(;", ")", ("true", "false")),
            CursorKind.WHILE_STMT: ("(", ")", ("false",)),
            CursorKind.FOR_STMT: (";", ";", ("false",)),
            CursorKind.CONDITIONAL_OPERATOR: ("", "?", ("true", "false")),
        }[cursor.kind]
        for child in cursor.get_children():
            before, behind = self.around(child)
            if not child.kind.is_expression() or behind != closing or (opening and before not in opening):
                continue
            if "constexpr" in self.text(cursor)[:14] or self.text(child) in ("true", "false"):
                return
            for value in values:
                self.add(child, function, "condition", value, f"condition -> {value}", form="condition")
            return

    def look_at_statement(self, cursor, function):
        text = self.text(cursor)
        if self.around(cursor)[1] != ";" or text.startswith(("static_cast<void>", "(void)", "CW_ASSERT")):
            return
        empty_return = cursor.kind == CursorKind.RETURN_STMT and text == "return"
        if cursor.kind.is_expression() or empty_return or cursor.kind in (
                CursorKind.BREAK_STMT, CursorKind.CONTINUE_STMT):
            self.add(cursor, function, "statement", "", "deleted", form="statement")

    def look_at_return(self, cursor, above, function):
        if returns_reference(above):
            return
        for child in cursor.get_children():
            if is_pointer(child) and self.text(child) != "nullptr":
                self.add(child, function, "null", "nullptr", "returned -> nullptr")

    def look_at_call(self, cursor, function):
        if re.fullmatch(r"operator[<>=!]=?", cursor.spelling):
            self.look_at_operator(cursor, function, {sign: OPERATORS[sign] for sign in COMPARISONS}, 0, 2)
            return
        path, start, end = self.extent(cursor)
        given = [one for one in cursor.get_arguments() if isinstance(one, Cursor)]
        given = [one for one in given if path and self.extent(one)[0] == path and
                 start < self.extent(one)[1] and self.extent(one)[2] < end]
        for argument in given:
            text = self.text(argument)
            if is_pointer(argument) and text not in ("nullptr", "this") and not text.startswith('"'):
                self.add(argument, function, "null", "nullptr", f"{text} -> nullptr", self.text(cursor))
        if not SYMMETRIC.match(cursor.spelling):
            for first, second in zip(given, given[1:]):
                self.look_at_pair(cursor, first, second, function)

    def look_at_pair(self, call, first, second, function):
        if plain_type(first) != plain_type(second) or self.text(first) == self.text(second):
            return
        path, start, end = self.extent(call)
        _, first_start, first_end = self.extent(first)
        _, second_start, second_end = self.extent(second)
        if first_end >= second_start:
            return
        pieces = ((start, first_start), (second_start, second_end), (first_end, second_start),
                  (first_start, first_end), (second_end, end))
        changed = "".join(self.source(path)[begin:stop].decode() for begin, stop in pieces)
        self.add(call, function, "swap", changed, f"{self.text(first)} <-> {self.text(second)}")


def qualified(cursor):
    name = cursor.spelling
    parent = cursor.semantic_parent
    while parent is not None and parent.kind in CLASSES:
        name = f"{parent.spelling}::{name}"
        parent = parent.semantic_parent
    return name


def plain_type(cursor):
    spelling = cursor.type.get_canonical().spelling
    return re.sub(r"\bconst\b|&", "", spelling).strip() or None


def returns_reference(above):
    """Null would be an object that is gone by then."""
    innermost = next((one for one in reversed(above)
                      if one.kind in FUNCTIONS or one.kind == CursorKind.LAMBDA_EXPR), None)
    return innermost is not None and innermost.result_type.kind == TypeKind.LVALUEREFERENCE


def is_pointer(cursor):
    of_type = cursor.type.get_canonical()
    return of_type.kind == TypeKind.POINTER or OWNERS.match(of_type.spelling) is not None
