"""Where the runtime is found."""

import glob
import os
import shutil
import subprocess
import sys

import pytest

import vorda

PACKAGE = os.path.dirname(vorda.__file__)  # in the build tree or installed
SCRIPTED = os.path.join(os.environ["VORDA_BUILD"], "scripted")
PAIR = ("libvordart.x64.so.6", "libvordart-compat.x64.so.6")

# Prints the answer of the runtime that was found, and the path it was loaded from.
PROGRAM = """
from vorda import zelqa
try:
    connection = zelqa.connect("Database=:memory:")
    print(connection.execute("SELECT ? + 1 AS n", (41,)).fetchall())
except zelqa.Error as error:
    print(error)
lines = [line for line in open("/proc/self/maps") if "libvordart.x64" in line]
print([line.split(maxsplit=5)[-1].strip() for line in lines][:1])
"""


def run(folder=os.path.dirname(PACKAGE), **environment):
    env = {**os.environ, "PYTHONPATH": folder, **environment}
    done = subprocess.run([sys.executable, "-c", PROGRAM], env=env,
                          text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
    assert done.returncode == 0, done.stdout
    return done.stdout


def test_an_installed_runtime_wins_over_the_bundled_one():
    assert SCRIPTED in run(LD_LIBRARY_PATH=SCRIPTED)


@pytest.mark.skipif(os.path.exists("/opt/vorda/rt/lib") or os.geteuid() != 0,
                    reason="the fixed folder cannot be tried out")
def test_the_fixed_folder_comes_before_the_bundled_pair():
    os.makedirs("/opt/vorda/rt/lib")
    try:
        for name in PAIR:
            shutil.copy(os.path.join(PACKAGE, name), "/opt/vorda/rt/lib")
        assert "'/opt/vorda/rt/lib/libvordart" in run()
    finally:
        shutil.rmtree("/opt/vorda")


def test_without_a_companion_the_main_library_is_used(package):
    shutil.copy(os.path.join(PACKAGE, PAIR[0]), package)
    assert "[(42)]" in run(folder=str(package.parent))


def test_without_any_runtime_connecting_is_an_error(package):
    output = run(folder=str(package.parent))
    assert "Unable to alloc env handle" in output and "[]" in output
    done = subprocess.run([sys.executable, "-m", "vorda", "Database=x"], cwd=str(package.parent),
                          text=True, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL,
                          env={**os.environ, "PYTHONPATH": ""})
    assert "No runtime can be loaded; python -m vorda doctor" in done.stderr


def test_the_module_has_no_run_path():
    (module,) = glob.glob(os.path.join(PACKAGE, "zelqa*.so"))
    dynamic = subprocess.check_output(["readelf", "-d", module], text=True)
    assert "RUNPATH" not in dynamic and "RPATH" not in dynamic


def test_the_exported_names():
    (module,) = glob.glob(os.path.join(PACKAGE, "zelqa*.so"))
    lines = subprocess.check_output(["nm", "-DC", "--defined-only", module], text=True).splitlines()
    names = {line.split(maxsplit=2)[2] for line in lines}
    expected = {"GetCoreName", "GetCoreName(char const*, char*, int)", "SQLAllocHandle",
                "SQLExecDirectW", "SQLGetFunctions", "DBSPrepare", "PyInit_zelqa",
                "Dbs::Prepare(char*, int)", "Dbs::Open(char*, int)", "Dbs::Execute(char*, int)",
                "_db_column_info_::Clone() const", "ucs2_to_utf8(unsigned short*, char*)",
                "mystrcmpi(char const*, char const*)", "SqlTokenizer::NextToken()",
                "DynStrTemplate<99>::AppendDouble(double)",
                "NormalizeSQL(char const*, DynStrTemplate<99>&, int*, int*)"}
    assert expected <= names
    # Nothing of the Python layer, whose names are not ours alone.
    assert not {name for name in names if name.startswith("Py") and name != "PyInit_zelqa"}
    # Of the runtime, only what it implements: what is missing is told from what fails.
    lines = subprocess.check_output(["nm", "-D", "--defined-only", os.path.join(PACKAGE, PAIR[0])],
                                    text=True)
    names = {line.split()[2] for line in lines.splitlines()}
    assert {"RT_Version", "RT_SQLExecDirectW"} <= names
    assert all(name.startswith("RT_") for name in names)
    assert "RT_SQLTablePrivileges" not in names
