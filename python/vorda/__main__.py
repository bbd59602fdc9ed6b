"""python -m vorda: statements and a shell at the command line, and the doctor."""

import argparse
import io
import os
import sys
import warnings
from typing import List, NoReturn, Optional

from . import __version__
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

A password in CONNECTION_STRING can be read in the list of processes: PWD=? asks for it.

  %(prog)s shop.db "SELECT * FROM item"
  %(prog)s "DSN=shop;UID=me;PWD=?"
  %(prog)s doctor ["Database=shop.db"]      why does it not connect?
"""


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        # They may be pieces of a connection string: not to be repeated.
        if message.startswith("unrecognized"):
            message = ("too many arguments; put quotes around the connection string and around"
                       " the statement")
        super().error(message)


def parse(arguments: List[str]) -> argparse.Namespace:
    name = os.path.basename(sys.argv[0])
    parser = Parser(prog=name if name == "vorda" else "python -m vorda", epilog=EPILOG,
                    formatter_class=argparse.RawDescriptionHelpFormatter,
                    description="Run SQL on a connection, or open a shell.")
    parser.add_argument("--version", action="version", version="vorda " + __version__)
    style = parser.add_mutually_exclusive_group()
    for name in ("csv", "json"):
        style.add_argument("--" + name, dest="style", action="store_const", const=name,
                           default="table", help="write results as " + name.upper())
    style.add_argument("--mode", dest="style",
                       choices=("table", "record", "csv", "json", "markdown"),
                       help="write results so")
    parser.add_argument("--password-file", metavar="FILE", default="",
                        help="a file with the password in its first line")
    parser.add_argument("connection_string", metavar="CONNECTION_STRING",
                        help="for example Database=shop.db, or the path of a SQLite file")
    parser.add_argument("sql", metavar="SQL", nargs="?", help="what to run")
    return parser.parse_intermixed_args(arguments)


def run(options: argparse.Namespace) -> int:
    mask = Mask(options.connection_string)

    def complain(text: str) -> None:
        sys.stdout.flush()
        tell(mask(text), sys.stderr)

    try:
        from . import dbapi
    except ImportError as error:
        complain("error: %s\n(python -m vorda doctor tells more)" % error)
        return 1
    from .shell.failure import Failure
    from .shell.passwords import with_password
    from .shell.session import Session

    session: Optional[Session] = None
    try:
        options.connection_string = with_password(options.connection_string,
                                                  options.password_file, complain)
        mask = Mask(options.connection_string)
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
            from .shell.terminal import Terminal

            print("vorda shell; .help for help, Ctrl-D to leave.")
            Terminal(session).run()
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
        if not session and isinstance(error, dbapi.Error) and "vorda doctor" not in str(error):
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
    try:
        status = run(options)
        sys.stdout.flush()
        return status
    except KeyboardInterrupt:
        return 130
    except BrokenPipeError:
        # Whoever read the output has seen enough; the interpreter must not flush into the pipe.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 141
    except OSError as error:
        tell("error: " + Mask(options.connection_string)(str(error)), sys.stderr)
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except Exception:
        import traceback

        tell(Mask(options.connection_string)(traceback.format_exc()), sys.stderr)
        return 1


def command() -> NoReturn:
    """The command `vorda`."""
    sys.exit(main(sys.argv[1:]))


if __name__ == "__main__":
    command()
