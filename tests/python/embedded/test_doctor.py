"""python -m vorda doctor: its output alone says why there is no connection."""

import ctypes.util
import os
import shutil
import subprocess
import sys

import pytest

from vorda import zelqa

BUILD = os.environ["VORDA_BUILD"]
PACKAGE = os.path.dirname(zelqa.__file__)
SCRIPTED = os.path.join(BUILD, "scripted")
RUNTIME, COMPANION = "libvordart.x64.so.6", "libvordart-compat.x64.so.6"


def doctor(*arguments, folder=os.path.dirname(PACKAGE), status=0, isolated=None, **environment):
    start = ["-I", "-c", "import sys; sys.path.append(%r); from vorda.__main__ import main;"
             " sys.exit(main(sys.argv[1:]))" % folder] if isolated else ["-m", "vorda"]
    done = subprocess.run([sys.executable, *start, "doctor", *arguments], text=True, timeout=120,
                          cwd=isolated, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          env={**os.environ, "PYTHONPATH": folder, **environment})
    assert done.returncode == status, done.stdout
    return done.stdout


def test_a_good_installation():
    report = doctor("Database=:memory:;Password={hunter;2}")
    places = ("1. by the loader", "2. in the fixed", "3. beside the module")
    assert sorted(places, key=report.index) == list(places)
    assert "failed  %s: cannot open shared object file: No such file" % RUNTIME in report
    assert "found   %s" % os.path.join(PACKAGE, RUNTIME) in report and "version      6" in report
    assert "Password=***" in report and "hunter" not in report and "connected" in report
    assert sys.executable in report and zelqa.__file__ in report


def test_an_installed_runtime_ends_the_search():
    report = doctor(LD_LIBRARY_PATH=SCRIPTED)
    assert "found   %s" % os.path.join(SCRIPTED, RUNTIME) in report
    assert "functions    113 of 113" in report
    assert "2. in the fixed" not in report and "All is well" in report and "ODBC, for" not in report


def test_the_libraries_that_fail_say_why(package):
    report = doctor("Database=x;Pwd=hunter2", folder=str(package.parent), status=1)
    assert "No runtime can be loaded" in report
    assert report.count("cannot open shared object file") == 6
    (package / RUNTIME).write_bytes(b"no library")
    assert "file too short" in doctor(folder=str(package.parent), status=1)
    shutil.copy(os.path.join(PACKAGE, RUNTIME), package)
    assert "companion is missing" in doctor(folder=str(package.parent))


SOURCE = {
    "ends the process": "#include <signal.h>\n"
                        "__attribute__((constructor)) void f(void) { raise(SIGKILL); }",
    "refuses": "int RT_SQLAllocHandle(const char* p, short t, void* i, void** o) { return -1; }",
}


@pytest.mark.skipif(shutil.which("gcc") is None, reason="no compiler")
@pytest.mark.parametrize("kind, message", [("ends the process", "ended by SIGKILL"),
                                           ("refuses", "functions    1 of 113")])
def test_a_broken_runtime(tmp_path, kind, message):
    for name in (RUNTIME, COMPANION):
        subprocess.run(["gcc", "-shared", "-fPIC", "-x", "c", "-", "-o", str(tmp_path / name)],
                       check=True, input=SOURCE[kind], text=True)
    report = doctor(status=1, LD_LIBRARY_PATH=str(tmp_path))
    assert message in report and "1. by the loader" in report
    assert kind != "refuses" or "refuses an environment handle" in report


@pytest.mark.skipif(ctypes.util.find_library("odbc") is None, reason="no ODBC driver manager")
def test_odbc_drivers_and_data_sources(tmp_path):
    (tmp_path / "broken.so").write_bytes(b"no library")
    drivers = {"Größe": os.path.join(PACKAGE, COMPANION), "Lost": "/nowhere/lost.so",
               "Broken": tmp_path / "broken.so"}
    if shutil.which("gcc"):
        drivers["Wild"] = tmp_path / "wild.so"
        subprocess.run(["gcc", "-shared", "-fPIC", "-x", "c", "-", "-o", str(drivers["Wild"])],
                       check=True, input=SOURCE["ends the process"], text=True)
    (tmp_path / "odbcinst.ini").write_text("".join(
        "[%s]\nDriver=%s\nPassword=hunter2\n" % item for item in drivers.items())
        + "[None]\n[odd\n=\n")
    (tmp_path / "odbc.ini").write_text(
        "[shop]\nDriver=Größe\nPWD=hunter2\n[old]\nDriver=Sold\nPassword=hunter2\n")
    (tmp_path / "ctypes.py").write_text("import sys; sys.exit('a file of this folder runs')")
    report = doctor(ODBCSYSINI=str(tmp_path), ODBCINI="/nowhere/odbc.ini", PYTHONUTF8="1",
                    isolated=tmp_path)
    assert "this folder" not in report
    for line in ("driver    Größe: %s" % drivers["Größe"], "/nowhere/odbc.ini (missing)",
                 "file too short",
                 "driver    Lost: cannot be loaded: /nowhere/lost.so: cannot open",
                 "None: cannot be loaded: no library",
                 "source    shop, by the driver Größe\n",
                 "source    old, by the driver Sold, which is not known\n"):
        assert line in report
    assert "Wild" not in drivers or "wild.so: loading it ends the process by signal 9" in report
    assert "hunter" not in report and "All is well" in report


def test_a_connection_that_fails_shows_the_providers_words():
    assert "unable to open database file: '/no/***'" in doctor("Database=/no/hunter2;Pwd=hunter2",
                                                               status=1)


def test_a_module_of_another_interpreter_is_named(package):
    for file in package.glob("zelqa.*.so"):
        file.rename(package / "zelqa.cpython-399-other.so")
    report = doctor(folder=str(package.parent), status=1)
    assert "cannot be imported" in report and "zelqa.cpython-399-other.so" in report
