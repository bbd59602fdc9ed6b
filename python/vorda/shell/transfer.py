"""Commands that carry rows between tables and files."""

import contextlib
import os
import time
from typing import TYPE_CHECKING, Dict, Iterator, List, TextIO, Tuple

from .commands import EXPORT_USAGE, IMPORT_USAGE
from .csvreader import form_of
from .destination import Target
from .failure import Failure
from .formats import Csv
from .importer import Importer, ImportFailed

if TYPE_CHECKING:
    from .session import Session


def sorted_out(arguments: List[str], options: Dict[str, str], usage: str) -> Tuple[str, str]:
    """The two names, when the options are taken from the arguments. An option of no value is "" or
    "yes"."""
    names, words = [], iter(arguments)
    for word in words:
        if word in options and options[word]:
            options[word] = next(words, "")
        elif word in options:
            options[word] = "yes"
        else:
            names.append(word)
    if len(names) != 2 or any(name.startswith("--") for name in names):
        raise Failure("usage: " + usage)
    return os.path.expanduser(names[0]), names[1]


def import_file(session: "Session", arguments: List[str]) -> None:
    options = {"--empty-text": "", "--delimiter": ",", "--encoding": "utf-8", "--skip": "0"}
    path, table = sorted_out(arguments, options, ".import " + IMPORT_USAGE)
    form = form_of(options["--delimiter"], options["--encoding"], options["--skip"])
    start = time.monotonic()
    importing = Importer(session.connection, session.dialect, session.interrupts, form,
                         bool(options["--empty-text"]))
    session.begin()
    try:
        importing.run(path, table)
    except OSError as error:
        raise Failure("%s: %s" % (path, error.strerror)) from error
    except ImportFailed as error:
        raise Failure("%s: %s; nothing is imported" % (path, error)) from error
    finally:
        session.has_ended = importing.stored >= 0
    session.generation += 1
    if importing.stored != importing.rows:
        session.note("warning: of %s the database has stored %s"
                     % (plural(importing.rows), format(importing.stored, ",")))
    session.say("%s imported%s" % (plural(importing.rows),
                                   " into a new table" if importing.to_make else ""),
                time.monotonic() - start)


def export_file(session: "Session", arguments: List[str]) -> None:
    options = {"--delimiter": ",", "--encoding": "utf-8"}
    path, what = sorted_out(arguments, options, ".export " + EXPORT_USAGE)
    form = form_of(options["--delimiter"], options["--encoding"], "0")
    quoted, start = session.dialect.quoted, time.monotonic()
    is_query = any(char.isspace() for char in what)
    parts = [what] if session.dialect.quote in what else what.split(".")
    sql = what if is_query else "SELECT * FROM " + quoted(*parts)
    session.begin()
    with contextlib.closing(session.connection.cursor()) as cursor:
        session.interrupts.call(session.start, cursor, sql)
        columns = cursor.description
        if columns is None:
            raise Failure("the statement gives no rows to export")
        try:
            with replaced(path, form.encoding) as file:
                Csv(Target(file.write, form.encoding, 0), form.delimiter).show(
                    columns, session.counted(session.blocks(cursor)))
        except OSError as error:
            raise Failure("%s: %s" % (path, error.strerror)) from error
        except UnicodeError as error:
            raise Failure("%s: a text cannot be written as %s; nothing is exported"
                          % (path, form.encoding)) from error
    session.say("%s exported" % plural(session.rows), time.monotonic() - start)


def plural(rows: int) -> str:
    return "%s row%s" % (format(rows, ","), "" if rows == 1 else "s")


@contextlib.contextmanager
def replaced(path: str, encoding: str) -> Iterator[TextIO]:
    """A file to write that takes the place of the one at the path when all is written."""
    if os.path.exists(path) and not os.path.isfile(path):  # a pipe, a device
        with open(path, "w", encoding=encoding, newline="\n") as file:
            yield file
        return
    path = os.path.realpath(path)
    folder, name = os.path.split(path)
    beside = os.path.join(folder, ".%s.%d" % (name, os.getpid()))
    file = open(beside, "x", encoding=encoding, newline="\n")
    try:
        with file:
            yield file
        if os.path.exists(path):
            os.chmod(beside, os.stat(path).st_mode & 0o777)
        os.replace(beside, path)
    except BaseException:
        with contextlib.suppress(OSError):
            os.unlink(beside)
        raise
