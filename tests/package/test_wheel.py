"""The files that `./dev wheel` made, and the environment that it installed the wheel into."""

import glob
import os
import pathlib
import re
import subprocess
import sysconfig
import tarfile
import zipfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = pathlib.Path(os.environ["VORDA_WORK"])
CLEAN = pathlib.Path(os.environ["VORDA_CLEAN"])
(SDIST,) = glob.glob(os.path.join(os.environ["VORDA_DIST"], "*.tar.gz"))
(WHEEL,) = WORK.glob("from sdist/*.whl")
# Those that are given away, and an environment for each.
RELEASED = sorted(WORK.glob("released-*"))
VERSION = re.search(r"project\(\w+ VERSION ([\d.]+)",
                    (ROOT / "CMakeLists.txt").read_text()).group(1)
LIBRARIES = ("libvordart.x64.so.6", "libvordart-compat.x64.so.6",
             *(name + sysconfig.get_config_var("EXT_SUFFIX") for name in ("zelqa", "_statement")))


def contents(path):
    with zipfile.ZipFile(path) as wheel:
        return {name: wheel.read(name) for name in wheel.namelist()}


def run(*arguments):
    """Runs something in an empty folder of the clean environment, with nothing of ours in the
    environment."""
    bare = {"PATH": os.environ["PATH"], "HOME": str(CLEAN), "LC_ALL": "C.UTF-8"}
    done = subprocess.run(arguments, cwd=CLEAN, env=bare, stdout=subprocess.PIPE, timeout=120,
                          stderr=subprocess.STDOUT, universal_newlines=True)
    assert done.returncode == 0, done.stdout
    return done.stdout


def test_the_wheel_holds_the_package_and_nothing_else():
    source = ROOT / "python" / "vorda"
    python = [str(path.relative_to(source)) for kind in ("*.py", "*.pyi", "py.typed")
              for path in source.rglob(kind)]
    about = "vorda_zelqa-%s.dist-info/" % VERSION
    files = contents(WHEEL)
    assert sorted(files) == sorted(
        ["vorda/" + name for name in {"_version.py", "zelqa.pyi", "py.typed", *LIBRARIES, *python}]
        + [about + name for name in ("METADATA", "RECORD", "WHEEL", "entry_points.txt",
                                    "licenses/LICENSE")])
    assert re.search(r"(?m)^Root-Is-Purelib: false$", files[about + "WHEEL"].decode())
    metadata = files[about + "METADATA"].decode()
    assert "\nVersion: %s\n" % VERSION in metadata and (ROOT / "README.md").read_text() in metadata


def test_sdist_and_tree_give_the_same_wheel():
    (from_tree,) = WORK.glob("from tree/*.whl")
    assert contents(from_tree) == contents(WHEEL)


def test_the_sdist_holds_what_it_takes_and_no_waste():
    with tarfile.open(SDIST) as sdist:
        names = {name.split("/", 1)[1] for name in sdist.getnames()}
    assert {"CHANGELOG.md", "LICENSE", "README.md", "dev", "tests/CMakeLists.txt",
            "embedded/exports.map"} <= names
    assert not [name for name in names if re.search(r"^build|(^|/)\.|__pycache__|\.so\b", name)]


@pytest.mark.parametrize("name", LIBRARIES)
def test_libraries_need_only_run_time_packages_and_show_no_folder(name):
    (path,) = CLEAN.glob("lib/python*/site-packages/vorda/" + name)
    dynamic = run("readelf", "-d", str(path))
    needed = set(re.findall(r"NEEDED.*\[(.*)\]", dynamic))
    assert needed <= {"libsqlite3.so.0", "libgcc_s.so.1", "libm.so.6", "libc.so.6",
                      "ld-linux-x86-64.so.2"}
    assert "RPATH" not in dynamic and "RUNPATH" not in dynamic
    assert not re.search(r"\.(symtab|debug_info)\b", run("readelf", "-S", "-W", str(path)))
    assert str(ROOT).encode() not in path.read_bytes()


def test_a_session_in_the_clean_environment():
    python = str(CLEAN / "bin" / "python")
    output = run(python, "-c", """if True:
        import vorda
        from vorda import dbapi, zelqa
        connection = zelqa.connect("Database=new.db")
        connection.execute("CREATE TABLE t (x TEXT)")
        connection.execute("INSERT INTO t VALUES (?)", ("ü",))
        print(vorda.__version__, connection.execute("SELECT * FROM t").fetchall())
        dbapi.connect("new.db").close()
        maps = [line.split(maxsplit=5) for line in open("/proc/self/maps") if "vorda" in line]
        print(*{fields[5] for fields in maps})""")
    assert output.startswith("%s [('ü')]\n" % VERSION)
    assert output.count(str(CLEAN)) == len(LIBRARIES) and str(ROOT) not in output
    assert "ü" in run(python, "-m", "vorda", "Database=new.db", "SELECT * FROM t")
    assert "ü" in run(str(CLEAN / "bin" / "vorda"), "Database=new.db", "SELECT * FROM t")


@pytest.mark.skipif(not RELEASED, reason="no wheels to give away were made")
def test_wheels_to_give_away_run_on_systems_of_2021():
    names = [os.path.basename(path) for path in glob.glob(os.environ["VORDA_DIST"] + "/*.whl")]
    assert len(names) == len(RELEASED)
    for name in names:
        assert int(re.search(r"manylinux_2_(\d+)_", name).group(1)) <= 34, name


@pytest.mark.parametrize("environment", RELEASED, ids=lambda path: path.name)
def test_a_session_on_a_system_without_sqlite(environment):
    hide = """for file in $(ldconfig -p | sed -n 's/.*libsqlite3.*=> //p'); do
        mount --bind /dev/null "$(readlink -f "$file")" || exit 99; done; exec "$@" """
    if subprocess.call(["unshare", "-m", "true"]):
        pytest.skip("no namespace of mounts can be made here")
    python = str(environment / "bin" / "python")
    for statement, shown in [("SELECT 'ü' AS x", "ü"), ("SELECT count(*) AS n FROM t", "1")]:
        script = "CREATE TABLE IF NOT EXISTS t (x); DELETE FROM t; INSERT INTO t VALUES (1);"
        out = run("unshare", "-m", "sh", "-c", hide, "sh", python, "-m", "vorda", "without.db",
                  script + statement)
        assert shown in out
