"""The shell's own commands: a table, and those that change how the shell works."""

import os
from typing import TYPE_CHECKING, Callable, Dict, List, NamedTuple, Tuple

from . import browse
from .failure import Failure

if TYPE_CHECKING:
    from .session import Session

IMPORT_USAGE = "[--empty-text] [--delimiter C] [--encoding NAME] [--skip LINES] FILE TABLE"
EXPORT_USAGE = "[--delimiter C] [--encoding NAME] FILE TABLE|QUERY"
MAX_DEPTH = 20  # of files that read files

# What other shells know, and where it is here.
HINTS = {"clear": "Ctrl-L clears the screen", "cls": "Ctrl-L clears the screen",
         "\\q": ".quit leaves", "\\d": ".tables lists tables, .describe NAME shows one",
         "\\l": ".databases lists databases", "\\x": ".mode record shows one value a line",
         "\\i": ".read FILE runs the statements of a file", "\\o": ".output FILE",
         "\\timing": ".timer on", "\\copy": ".import and .export",
         "\\?": ".help lists the commands"}
BACKSLASH = ".tables lists tables, .schema NAME shows one, .help has the rest"


def hint(line: str) -> str:
    """Words about a command of another shell, or nothing."""
    word = (line.split() or [""])[0].rstrip(";").lower()
    return HINTS.get(word, BACKSLASH if word.startswith("\\") else "")


def switch(word: str, command: str) -> bool:
    if word not in ("on", "off"):
        raise Failure("usage: %s on|off" % command)
    return word == "on"


def set_mode(session: "Session", arguments: List[str]) -> None:
    from .session import FORMATS

    if not arguments:
        print(session.style)
    elif arguments[0] not in FORMATS:
        raise Failure("there is no mode %s; there are %s" % (arguments[0], ", ".join(FORMATS)))
    else:
        session.set_style(arguments[0])


def set_timer(session: "Session", arguments: List[str]) -> None:
    session.timer = switch(arguments[0], ".timer")


def set_pager(session: "Session", arguments: List[str]) -> None:
    session.destination.pages = switch(arguments[0], ".pager")


def set_timeout(session: "Session", arguments: List[str]) -> None:
    if not arguments:
        print(session.connection.timeout)
        return
    try:
        seconds = float(arguments[0])
        if not seconds >= 0:
            raise ValueError
        session.connection.timeout = seconds
    except (ValueError, OverflowError):
        raise Failure("%s is no number of seconds" % arguments[0]) from None


def send_output(session: "Session", arguments: List[str]) -> None:
    session.destination.send("".join(arguments), once=False)


def send_next(session: "Session", arguments: List[str]) -> None:
    session.destination.send(arguments[0], once=True)


def read(session: "Session", arguments: List[str]) -> None:
    path = os.path.expanduser(arguments[0])
    if session.depth >= MAX_DEPTH:
        raise Failure("%s: files that read files go %d deep at most" % (path, MAX_DEPTH))
    session.depth += 1
    try:
        with open(path, encoding="utf-8-sig", newline="\n") as file:
            session.run_lines(file, path)
    except OSError as error:
        raise Failure("%s: %s" % (path, error.strerror)) from error
    finally:
        session.depth -= 1


def import_file(session: "Session", arguments: List[str]) -> None:
    from .transfer import import_file

    import_file(session, arguments)


def export_file(session: "Session", arguments: List[str]) -> None:
    from .transfer import export_file

    export_file(session, arguments)


def show_help(_: "Session", __: List[str]) -> None:
    for command in COMMANDS:
        print(("%s %s" % (command.name, command.usage)).rstrip() + "\n    " + command.help)
    print("A statement may take several lines and ends with a semicolon; CREATE PROCEDURE\n"
          "ends with a line that holds only /, or here with an empty line. Ctrl-C stops a\n"
          "result or a half-typed statement.")


def leave(_: "Session", __: List[str]) -> None:
    raise EOFError


class Command(NamedTuple):
    name: str
    arguments: Tuple[int, int]  # least and most
    usage: str
    help: str
    run: Callable[["Session", List[str]], None]

    def call(self, session: "Session", arguments: List[str]) -> None:
        least, most = self.arguments
        if not least <= len(arguments) <= most:
            raise Failure(("usage: %s %s" % (self.name, self.usage)).rstrip())
        self.run(session, arguments)


COMMANDS = (
    Command(".tables", (0, 1), "[PATTERN]", "the tables and views; % in a pattern is any text",
            browse.tables),
    Command(".describe", (1, 1), "NAME", "the columns of a table or view", browse.describe),
    Command(".indexes", (0, 1), "[TABLE]", "the indexes of one table or of all", browse.indexes),
    Command(".schema", (0, 1), "[NAME]", "what would make a table, view or procedure again",
            browse.schema),
    Command(".databases", (0, 0), "", "the databases that the connection sees", browse.databases),
    Command(".mode", (0, 1), "[table|record|csv|json|markdown]", "how results are written",
            set_mode),
    Command(".output", (0, 1), "[FILE]", "where results go; without a file the screen",
            send_output),
    Command(".once", (1, 1), "FILE", "where the next result goes", send_next),
    Command(".read", (1, 1), "FILE", "run the statements of a file", read),
    Command(".import", (2, 9), IMPORT_USAGE,
            "add a CSV file's rows, all or none, to a table, which is made when there is none;\n"
            "    an empty field is NULL, or a text", import_file),
    Command(".export", (2, 6), EXPORT_USAGE,
            "write a table, or what a query gives, as CSV, all or nothing", export_file),
    Command(".timer", (1, 1), "on|off", "tell how long statements take", set_timer),
    Command(".timeout", (0, 1), "[SECONDS]", "end statements that take longer; 0 is no limit",
            set_timeout),
    Command(".pager", (1, 1), "on|off", "show long results in a pager", set_pager),
    Command(".help", (0, 0), "", "this list", show_help),
    Command(".quit", (0, 0), "", "leave; so does Ctrl-D", leave),
)
BY_NAME: Dict[str, Command] = {command.name: command for command in COMMANDS}
