"""docs/reference.md, made from what vorda.dbapi says of itself: reference.py [--check]

Signatures come from the sources and the stubs, where types are; words from the docstrings.
"""

import ast
import inspect
import pathlib
import re
import sys

from vorda import dbapi

ROOT = pathlib.Path(__file__).resolve().parents[1]
TARGET = ROOT / "docs" / "reference.md"
HEAD = """# Reference: `vorda.dbapi`

Made from the docstrings by `tools/reference.py`. The [guide](dbapi.md) goes by task.
"""


def declared(path):
    """The functions and classes that a source or a stub declares, by name."""
    found = {}
    for node in ast.parse((ROOT / path).read_text()).body:
        if isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            found[node.name] = node
    return found


# Where the classes are that others build on, the stubs of the core last.
SOURCES = {name: declared("python/vorda/" + name)
           for name in ("dbapi.py", "catalog.py", "_statement.pyi")}


def signature(function):
    """As it is called: no self, and no underscore of a type's private name."""
    arguments = function.args
    for group in (arguments.posonlyargs, arguments.args):
        if group and group[0].arg in ("self", "cls"):
            del group[0]
            break
    result = " -> " + ast.unparse(function.returns) if function.returns else ""
    text = "(%s)%s" % (ast.unparse(arguments).lstrip("/, "), result)
    return re.sub(r"'|\b_(?=[A-Z])", "", text)


def entry(level, title, documented):
    words = inspect.getdoc(documented)
    assert words, "%s has no docstring" % title
    return "%s `%s`\n\n%s\n" % ("#" * level, title, words)


def members(name):
    """The public members of a class and of those it builds on, each where it is declared first."""
    nodes = [source.get(base.__name__) for source in SOURCES.values()
             for base in getattr(dbapi, name).__mro__]
    for node in filter(None, nodes):
        for member in node.body:
            if isinstance(member, ast.FunctionDef):
                if not member.name.startswith("_"):
                    yield member.name, member
            elif isinstance(member, ast.AnnAssign):
                if not member.target.id.startswith("_"):
                    yield member.target.id, member


def class_pages(name):
    kind = getattr(dbapi, name)
    yield entry(3, name, kind)
    done = set()
    for member, node in members(name):
        if member in done:
            continue
        done.add(member)
        title = "%s.%s" % (name, member)
        if isinstance(node, ast.AnnAssign):
            title += ": " + ast.unparse(node.annotation).replace("_RowFactory", "RowFactory")
        elif any(ast.unparse(mark) == "property" for mark in node.decorator_list):
            title += ": " + ast.unparse(node.returns)
        else:
            title += signature(node)
        yield entry(4, title, getattr(kind, member))


def page():
    functions, classes, errors, constants = [], [], [], []
    for name in dbapi.__all__:
        what, node = getattr(dbapi, name), SOURCES["dbapi.py"].get(name)
        if isinstance(node, ast.FunctionDef):
            functions.append(entry(3, name + signature(node), what))
        elif isinstance(node, ast.ClassDef) and issubclass(what, Exception):
            errors.append("- `%s(%s)`: %s\n" % (name, what.__base__.__name__,
                                                " ".join(inspect.getdoc(what).split())))
        elif isinstance(node, ast.ClassDef):
            classes.extend(class_pages(name))
        elif isinstance(what, (str, int)) and name != "__version__":
            constants.append("- `%s = %r`\n" % (name, what))
    return "\n".join([HEAD, "## Functions\n", *functions, "## Classes\n", *classes,
                      "## Exceptions\n", "".join(errors), "## Constants\n", "".join(constants)])


made = page()
if "--check" in sys.argv:
    if TARGET.read_text() != made:
        sys.exit("docs/reference.md is not what the docstrings say: make it by tools/reference.py")
else:
    TARGET.write_text(made)
