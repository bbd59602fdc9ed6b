"""python -m vorda: statements and a shell at the command line, and the doctor."""

import argparse
import io
import os
import sys
import traceback
import warnings
from typing import List, NoReturn, Optional

from .display import tell
from .masking import Mask

EPILOG = """\
Without SQL, statements come from standard input; on a terminal that is a shell with history
(.help tells more). Statements end with a semicolon, several may follow one another. The exit
status is 1 when a statement fails.

Each statement is committed by itself, unless BEGIN has opened a transaction, which then waits for
COMMIT or ROLLBACK.

--csv   a header line; NULL is an empty field, an empty text is "", binary data are hex digits.
--json  an array of objects, of one result; decimals, dates and times are texts, binary data are hex
        digits, NULL is null. Equal names get _2, _3 ...

  python -m vorda shop.db "SELECT * FROM item"
  python -m vorda doctor ["Database=shop.db"]      why does it not connect?
"""


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        # They may be pieces of a connection string: not to be repeated.
        if message.startswith("unrecognized"):
            message = ("too many arguments; put quotes around the connection string and around"
                       " the statement")
        super().error(message)


def parse(arguments: List[str]) -> argparse.Namespace:
    parser = Parser(prog="python -m vorda", epilog=EPILOG,
                    formatter_class=argparse.RawDescriptionHelpFormatter,
                    description="Run SQL on a connection, or open a shell.")
    style = parser.add_mutually_exclusive_group()
    for name in ("csv", "json"):
        style.add_argument("--" + name, dest="style", action="store_const", const=name,
                           default="table",
                           help="write results as " + name.upper())
    parser.add_argument("connection_string", metavar="CONNECTION_STRING",
                        help="for example Database=shop.db, or the path of a SQLite file")
    parser.add_argument("sql", metavar="SQL", nargs="?", help="what to run")
    return parser.parse_intermixed_args(arguments)


def run(options: argparse.Namespace, mask: Mask) -> int:
    def complain(text: str) -> None:
        sys.stdout.flush()
        tell(mask(text), sys.stderr)

    try:
        from . import dbapi
    except ImportError as error:
        complain("error: %s\n(python -m vorda doctor tells more)" % error)
        return 1
    from .shell import Failure, Session

    if isinstance(sys.stdout, io.TextIOWrapper):
        if options.style == "table" or sys.stdout.isatty():
            sys.stdout.reconfigure(errors="backslashreplace")
        else:
            sys.stdout.reconfigure(encoding="utf-8", newline="\n")
    session: Optional[Session] = None
    try:
        interactive = options.sql is None and sys.stdin.isatty() and sys.stdout.isatty()
        with warnings.catch_warnings(record=True) as remarks:
            warnings.simplefilter("always")
            connection = dbapi.connect(options.connection_string, autocommit=True)
        for remark in remarks:
            complain("warning: %s" % remark.message)
        session = Session(connection, options.style, mask)
        if options.sql is not None:
            session.run_lines(io.StringIO(options.sql))
        elif interactive:
            print("vorda shell; .help for help, Ctrl-D to leave.")
            session.interact()
        else:
            session.run_lines(io.TextIOWrapper(sys.stdin.buffer, encoding="utf-8-sig",
                                               newline="\n"), "standard input")
        return 0
    except EOFError:  # .quit
        return 0
    except KeyboardInterrupt as interrupt:
        if session:
            complain(session.stopped(interrupt))
        return 130
    except (Failure, dbapi.Error) as error:
        complain("error: %s" % error)
        if not session and "python -m vorda doctor" not in str(error):
            complain("(python -m vorda doctor CONNECTION_STRING tells more)")
        return 1
    finally:
        if session:
            session.close()


def main(arguments: List[str]) -> int:
    try:
        # Whatever the locale is, arguments are UTF-8, as files are.
        arguments = [os.fsencode(argument).decode() for argument in arguments]
    except UnicodeDecodeError:
        tell("error: an argument is not valid UTF-8", sys.stderr)
        return 2
    if arguments[:1] == ["doctor"]:
        from .doctor import main as doctor

        return doctor(arguments[1:])
    options = parse(arguments)
    mask = Mask(options.connection_string)
    try:
        status = run(options, mask)
        sys.stdout.flush()
        return status
    except KeyboardInterrupt:
        return 130
    except BrokenPipeError:
        # Whoever read the output has seen enough; the interpreter must not flush into the pipe.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 141
    except OSError as error:
        tell("error: " + mask(str(error)), sys.stderr)
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except Exception:
        tell(mask(traceback.format_exc()), sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
