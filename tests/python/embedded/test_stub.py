"""The stub says what the module is: the same names, the same ways to call them."""

import ast
import os

import pytest

from vorda import zelqa

PACKAGE = os.path.dirname(zelqa.__file__)
with open(os.path.join(PACKAGE, "zelqa.pyi"), encoding="utf-8") as file:
    STUB = ast.parse(file.read())
# Iteration goes by index, which only type checkers have to be told; an item cannot be deleted.
DIFFERENCES = {"Row": {"__iter__", "__delitem__"}}


def names(body):
    for node in body:
        if isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            yield node.name, node
        elif isinstance(node, (ast.Assign, ast.AnnAssign)):
            yield (node.targets[0] if isinstance(node, ast.Assign) else node.target).id, node


def test_the_stub_names_what_there_is_and_nothing_else():
    stub = {name: node for name, node in names(STUB.body) if not name.startswith("_")}
    assert set(stub) == {name for name in dir(zelqa) if not name.startswith("__")}
    for name, node in stub.items():
        real = getattr(zelqa, name)
        if not isinstance(node, ast.ClassDef):
            continue
        own = {n for n in vars(real) if n not in vars(object)
               and n not in ("__module__", "__weakref__", "__doc__")}
        assert own ^ {n for n, _ in names(node.body)} == DIFFERENCES.get(name, set()), name
        assert [base.id for base in node.bases] == [b.__name__ for b in real.__bases__
                                                    if b is not object]
        if any(getattr(d, "id", "") == "final" for d in node.decorator_list):
            with pytest.raises(TypeError):
                type("Derived", (real,), {})


def methods():
    for cls in ("Connection", "Cursor", "Row"):
        (node,) = [n for name, n in names(STUB.body) if name == cls]
        for name, function in names(node.body):
            if isinstance(function, ast.FunctionDef) and name not in DIFFERENCES.get(cls, ()):
                yield pytest.param(cls, function, id="%s.%s:%d" % (cls, name, function.lineno))


@pytest.mark.parametrize("cls, function", list(methods()))
def test_the_stub_counts_arguments_as_the_module_does(cls, function, connection):
    cursor = connection.execute("SELECT 1 AS a")
    target = {"Connection": connection, "Cursor": cursor,
              "Row": connection.execute("SELECT 1 AS a").fetchone()}[cls]
    if any(getattr(d, "id", "") == "property" for d in function.decorator_list):
        with pytest.raises(AttributeError):
            setattr(target, function.name, None)
        return
    arguments = function.args
    assert not (arguments.args[1:] or arguments.kwonlyargs or arguments.kwarg), "by position only"
    method = getattr(target, function.name)
    most = len(arguments.posonlyargs or arguments.args) - 1
    refused = (TypeError, zelqa.ProgrammingError)
    if not arguments.vararg:
        with pytest.raises(refused, match="argument|expected"):
            method(*[[]] * (most + 1))
    if most and not arguments.defaults and function.name not in ("__getitem__", "__contains__"):
        with pytest.raises(refused, match="argument|expected"):
            method()
    if not function.name.startswith("__"):
        with pytest.raises(TypeError, match="keyword"):
            method(keyword=1)
