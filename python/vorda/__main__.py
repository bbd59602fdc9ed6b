"""python -m vorda: statements and a shell at the command line, and the doctor."""

import argparse
import io
import os
import sys
import traceback
from typing import List, NoReturn, Optional

from .masking import Mask

EPILOG = """\
Without SQL, statements come from standard input; on a terminal that is a shell with history (.help tells more).
Statements end with a semicolon, several may follow one another. The exit status is 1 when a statement fails.

--csv   a header line; NULL is an empty field, an empty text is "".
--json  an array of objects; decimals, dates and times are texts, NULL is null. Equal names get _2, _3 ...

  python -m vorda "Database=shop.db" "SELECT * FROM item"
  python -m vorda doctor ["Database=shop.db"]      why does it not connect?
"""


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        if message.startswith("unrecognized"):  # they may be pieces of a connection string: not to be repeated
            message = "too many arguments; put quotes around the connection string and around the statement"
        super().error(message)


def parse(arguments: List[str]) -> argparse.Namespace:
    parser = Parser(prog="python -m vorda", epilog=EPILOG, formatter_class=argparse.RawDescriptionHelpFormatter,
                    description="Run SQL on a connection, or open a shell.")
    style = parser.add_mutually_exclusive_group()
    for name in ("csv", "json"):
        style.add_argument("--" + name, dest="style", action="store_const", const=name, default="table",
                           help="write results as " + name.upper())
    parser.add_argument("connection_string", metavar="CONNECTION_STRING", help="for example Database=shop.db")
    parser.add_argument("sql", metavar="SQL", nargs="?", help="what to run")
    return parser.parse_intermixed_args(arguments)


def run(options: argparse.Namespace, mask: Mask) -> int:
    try:
        from . import zelqa
    except ImportError as error:
        print("error: %s\n(python -m vorda doctor tells more)" % error, file=sys.stderr)
        return 1
    from .shell import Failure, Session

    if isinstance(sys.stdout, io.TextIOWrapper):
        if options.style == "table":
            sys.stdout.reconfigure(errors="backslashreplace")
        else:
            sys.stdout.reconfigure(encoding="utf-8", newline="\n")
    session: Optional[Session] = None
    try:
        interactive = options.sql is None and sys.stdin.isatty() and sys.stdout.isatty()
        session = Session(zelqa.connect(options.connection_string), options.style, mask)
        if options.sql is not None:
            session.run_lines(options.sql.splitlines(keepends=True))
        elif interactive:
            print("vorda.zelqa shell; .help for help, Ctrl-D to leave.")
            session.interact()
        else:
            session.run_lines(io.TextIOWrapper(sys.stdin.buffer, encoding="utf-8-sig"), "standard input")
        return 0
    except EOFError:  # .quit
        return 0
    except (Failure, zelqa.Error) as error:
        sys.stdout.flush()
        text = str(error)
        print("error: " + mask(text), file=sys.stderr)
        if session is None:
            print("(python -m vorda doctor CONNECTION_STRING tells more)", file=sys.stderr)
        else:
            session.note_help(error)
        return 1


def main(arguments: List[str]) -> int:
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
        # Whoever read the output has seen enough; the interpreter must not flush into the closed pipe.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 141
    except OSError as error:
        print("error: " + mask(str(error)), file=sys.stderr)
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except Exception:
        print(mask(traceback.format_exc()), file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
