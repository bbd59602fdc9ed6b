"""Sums up the JUnit files of a folder: a line a suite, and "N passed, N failed, N skipped"."""

import pathlib
import sys
import xml.etree.ElementTree as ElementTree


def counts(path):
    cases = list(ElementTree.parse(path).getroot().iter("testcase"))
    failed = sum(case.find("failure") is not None or case.find("error") is not None for case in cases)
    skipped = sum(case.find("skipped") is not None for case in cases)
    return len(cases) - failed - skipped, failed, skipped


def main(folder):
    total = (0, 0, 0)
    for path in sorted(pathlib.Path(folder).glob("*.xml")):
        one = counts(path)
        total = tuple(a + b for a, b in zip(total, one))
        print("%-28s %5d passed %4d failed %4d skipped" % (path.stem, *one))
    print("%d passed, %d failed, %d skipped" % total)
    return total[1] > 0 or sum(total) == 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
