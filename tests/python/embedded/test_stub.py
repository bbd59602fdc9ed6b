"""The stub says what the module is: the same names, the same bases."""

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
