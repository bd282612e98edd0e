"""The tiny fixture schema and helpers shared by the generator's tests."""

import os

from schemagen import model, parse
from schemagen.errors import SchemaError

HERE = os.path.dirname(os.path.abspath(__file__))
FIXTURE = os.path.join(HERE, "fixtures", "tiny.schema")
REPOSITORY = os.path.abspath(os.path.join(HERE, "..", "..", ".."))
REAL_SCHEMA = os.path.join(REPOSITORY, "resources", "schema", "vorndb.schema")


def text():
    with open(FIXTURE, encoding="utf-8") as f:
        return f.read()


def build(source=None, filename="tiny.schema"):
    """Model of the given schema text (the fixture by default)."""
    return model.build(parse.parse(text() if source is None else source, filename))


def problems(source, filename="bad.schema"):
    """(line, message) of every problem of a schema text; [] when it builds."""
    try:
        build(source, filename)
    except SchemaError as e:
        for file, _, _ in e.problems:
            assert file == filename
        return [(line, message) for _, line, message in e.problems]
    return []


def line_of(source, fragment):
    """1-based number of the first line containing fragment."""
    for number, line in enumerate(source.splitlines(), start=1):
        if fragment in line:
            return number
    raise AssertionError("no line contains %r" % fragment)
