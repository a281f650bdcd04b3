"""The type stubs and help() show the parameters the module really takes."""

import ast
import pathlib

import zor


def runtime_defaults(function):
    # pybind11 writes the signature as the docstring's first line.
    signature = function.__doc__.splitlines()[0]
    params = signature[signature.index("(") + 1 : signature.rindex(")")]
    defaults = {}
    for part in params.split(", "):
        if "=" in part:
            name, value = part.split("=", 1)
            defaults[name.split(":")[0].strip()] = ast.literal_eval(value.strip())
    return defaults


def stub_defaults(name):
    tree = ast.parse((pathlib.Path(zor.__file__).parent / "_zor.pyi").read_text())
    function = next(n for n in tree.body if isinstance(n, ast.FunctionDef) and n.name == name)
    args = function.args
    out = {a.arg: ast.literal_eval(d) for a, d in zip(args.kwonlyargs, args.kw_defaults) if d is not None}
    out.update({a.arg: ast.literal_eval(d) for a, d in zip(args.args[len(args.args) - len(args.defaults) :], args.defaults)})
    return out


def test_stub_defaults_are_the_module_defaults():
    for function in (zor.register, zor.align_views, zor.icp, zor.morph, zor.deviation, zor.report, zor.load, zor.sample_body):
        assert stub_defaults(function.__name__) == runtime_defaults(function), function.__name__
    assert "strategy" in zor.register.__doc__ and "auto+features" in zor.register.__doc__
