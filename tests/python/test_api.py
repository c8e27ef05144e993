"""The module as a user meets it: stubs that match it, docstrings on everything, help(tarn), and
an import from an install prefix."""

import ast
import glob
import inspect
import os
import pathlib
import pydoc
import subprocess
import sys

import tarn
import tarn._tarn as compiled

STUB = pathlib.Path(tarn.__file__).with_name("_tarn.pyi")


def stub_names():
    tree = ast.parse(STUB.read_text())
    top, members = set(), {}
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            top.add(node.name)
            names = set()
            for item in node.body:
                if isinstance(item, (ast.FunctionDef, ast.AsyncFunctionDef)):
                    names.add(item.name)
                elif isinstance(item, ast.AnnAssign) and isinstance(item.target, ast.Name):
                    names.add(item.target.id)
            members[node.name] = names
        elif isinstance(node, ast.FunctionDef):
            top.add(node.name)
        elif isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name):
            top.add(node.target.id)
    return top, members


def public(names):
    return {n for n in names if not (n.startswith("__") and n.endswith("__"))}


def test_the_stub_names_exactly_what_the_compiled_module_has():
    top, members = stub_names()
    actual = public(n for n in dir(compiled) if not n.startswith("__")) | {"__version__"}
    assert top - {"Value", "Params"} == actual
    for name, stubbed in members.items():
        cls = getattr(compiled, name)
        defined = {n for n in vars(cls) if not n.startswith("_")}
        assert {n for n in stubbed if not n.startswith("_")} == defined, name


def test_the_package_exports_what_it_documents():
    assert set(tarn.__all__) <= set(dir(tarn))
    for name in ["Client", "Server", "ConnectError", "Int", "Float", "Bool", "Str", "ParameterValue",
                 "ParameterList", "Connection", "Listener"]:
        assert name in tarn.__all__
    assert issubclass(tarn.ConnectError, ConnectionError)
    assert tarn.__version__.count(".") == 2


def documented(obj):
    lines = [l for l in (inspect.getdoc(obj) or "").splitlines() if l.strip()]
    # Compiled functions start their docstring with their signature; something must follow it.
    signature_first = not (inspect.isfunction(obj) or inspect.isclass(obj) or isinstance(obj, property))
    return len(lines) >= (2 if signature_first else 1)


def test_everything_public_has_a_docstring():
    missing = []
    for name in tarn.__all__:
        obj = getattr(tarn, name)
        if name.startswith("TYPE_") or name in ("MAX_BODY", "__version__"):
            continue
        if not documented(obj):
            missing.append(name)
        if inspect.isclass(obj) and not hasattr(obj, "__members__"):
            for member_name, member in vars(obj).items():
                if member_name.startswith("_") or not callable(member) and not isinstance(member, property):
                    continue
                if not documented(member):
                    missing.append(f"{name}.{member_name}")
    assert missing == []


def test_help_reads_well():
    text = pydoc.render_doc(tarn, renderer=pydoc.plaintext)
    assert "tarn.Server(port=0" in text and "next_call" in text
    assert "class Client" in text and "class Connection" in text
    client_help = pydoc.render_doc(tarn.Client, renderer=pydoc.plaintext)
    assert "next_event(self, timeout" in client_help


def test_importing_from_an_install_prefix(tmp_path):
    build = os.environ.get("TARN_BUILD_DIR")
    assert build, "TARN_BUILD_DIR must name the build directory"
    prefix = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", build, "--prefix", str(prefix)], check=True, capture_output=True,
                   timeout=300)
    found = glob.glob(str(prefix / "**" / "tarn" / "__init__.py"), recursive=True)
    assert len(found) == 1
    site = pathlib.Path(found[0]).parent.parent
    # Where README.md says the package goes: <prefix>/lib/pythonX.Y/site-packages/tarn.
    version = f"{sys.version_info.major}.{sys.version_info.minor}"
    assert site.relative_to(prefix).as_posix() == f"lib/python{version}/site-packages"
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "LD_LIBRARY_PATH")}
    env["PYTHONPATH"] = str(site)
    script = (
        "import tarn\n"
        "with tarn.Server(port=0) as server:\n"
        "    server.set('temperature', 21.5)\n"
        "    with tarn.Client('127.0.0.1', server.port) as client:\n"
        "        client.subscribe('temperature')\n"
        "        print(tarn.__file__, client.next_event(timeout=10).value)\n"
    )
    result = subprocess.run([sys.executable, "-c", script], env=env, cwd=tmp_path, capture_output=True, text=True,
                            timeout=60)
    assert result.returncode == 0, result.stderr
    location, value = result.stdout.split()
    assert location == found[0] and value == "21.5"
