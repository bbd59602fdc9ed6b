"""Reading CSV: an empty field is told from an empty text, as csv.reader does not."""

import codecs
import contextlib
import io
import re
from typing import BinaryIO, Iterator, List, NamedTuple, Optional, Tuple

from .failure import Failure

Fields = List[Optional[str]]


class Form(NamedTuple):
    """How a file is written."""

    delimiter: str = ","
    encoding: str = "utf-8"
    skip: int = 0  # lines in front of the header


NAMED_DELIMITERS = {"tab": "\t", "\\t": "\t"}


def form_of(delimiter: str, encoding: str, skip: str) -> Form:
    """From what a user types."""
    delimiter = NAMED_DELIMITERS.get(delimiter, delimiter)
    if len(delimiter) != 1 or delimiter in "\"\r\n" or delimiter.isalnum():
        raise Failure("%r is no delimiter: it is one character, or tab" % delimiter)
    try:
        encoding = codecs.lookup(encoding).name
        "a".encode(encoding)
    except (LookupError, TypeError):
        raise Failure("%s is no encoding that is known" % encoding) from None
    if not skip.isdecimal():
        raise Failure("%s is no number of lines" % skip)
    return Form(delimiter, encoding, int(skip))


class Malformed(Exception):
    """The file is not what it is said to be."""


def lines_of(file: BinaryIO, encoding: str) -> Iterator[str]:
    label = "UTF-8" if encoding == "utf-8" else encoding
    if "\n".encode(encoding) != b"\n":  # two or four bytes a character
        lines = io.TextIOWrapper(file, encoding, newline="\n")
        number = 0
        try:
            for number, line in enumerate(lines, 1):
                yield line.lstrip("\ufeff") if number == 1 else line
        except UnicodeError as error:
            raise Malformed("behind line %d there is no valid %s" % (number, label)) from error
        finally:
            with contextlib.suppress(ValueError):  # the file is closed
                lines.detach()
        return
    for number, data in enumerate(file, 1):
        try:
            line = data.decode(encoding)
        except UnicodeError as error:
            raise Malformed("line %d is not valid %s" % (number, label)) from error
        yield line.lstrip("\ufeff") if number == 1 else line


def records(file: BinaryIO, form: Form) -> Iterator[Tuple[int, Fields]]:
    """Each record with the number of its first line. A field is None where there is nothing, but an
    empty text where there are quotes."""
    # A field in quotes or without, and what ends it.
    other = r"[^%s\r\n]" % re.escape(form.delimiter)
    match_field = re.compile(r'(?:"([^"]*(?:""[^"]*)*)"|((?!")%s+)?)(%s|\r?\n|\r?\Z)'
                             % (other, re.escape(form.delimiter))).match
    lines, number = lines_of(file, form.encoding), 0
    for line in lines:
        number, first = number + 1, number + 1
        if number <= form.skip:
            continue
        fields: Fields = []
        position, end = 0, form.delimiter
        while end == form.delimiter:
            match = match_field(line, position)
            if match:
                quoted, plain, end = match.groups()
                fields.append(plain if quoted is None else quoted.replace('""', '"'))
                position = match.end()
                continue
            if line[position] != '"' or line.count('"', position) % 2 == 0:
                raise Malformed("line %d: text beside the quotes of a field" % number)
            pieces, line = [line], ""
            for line in lines:
                number += 1
                pieces.append(line)
                if line.count('"') % 2:
                    break
            else:
                raise Malformed("line %d: the quotes of a field are not closed" % first)
            line = "".join(pieces)
        yield first, fields
