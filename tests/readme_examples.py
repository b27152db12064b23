#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs every code block of the README that is a program or a command, as
it stands: ```c blocks are built against the build tree and run (one
named ```c NAME is written as the file NAME, which shell blocks compile),
```python blocks run with the build's package, ```sh blocks run under bash
-euo pipefail.  Each runs in one scratch directory holding links to the
tree's include, build, examples and tools, on an instance of its own, and
must exit 0 within a minute.  A block whose first line is a comment
"# not run here: ..." says which test runs it instead.

    readme_examples.py SOURCE_DIR BUILD_DIR
"""
import os
import re
import signal
import subprocess
import sys
import tempfile

BLOCK = re.compile(r"^```(c|python|sh)([^\n]*)\n(.*?)^```$", re.M | re.S)


def run(what, command, work, environment):
    """None, or why the command failed; what it left running is killed."""
    child = subprocess.Popen(command, cwd=work, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             text=True, start_new_session=True)
    try:
        output, _ = child.communicate(timeout=60)
        failure = f"{what}: exit status {child.returncode}\n{output}" if child.returncode != 0 else None
    except subprocess.TimeoutExpired:
        failure = f"{what}: still running after 60 s"
    try:
        os.killpg(child.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    child.communicate()
    return failure


def main(source, build):
    work = tempfile.mkdtemp(prefix="readme-")
    for leaf, target in (("include", os.path.join(source, "include")), ("build", build),
                         ("examples", os.path.join(source, "examples")), ("tools", os.path.join(source, "tools"))):
        os.symlink(target, os.path.join(work, leaf))
    failures, ran = [], 0
    with open(os.path.join(source, "README.md")) as readme:
        blocks = BLOCK.findall(readme.read())
    for language, name, text in blocks:  # the files the shell blocks compile
        if language == "c" and name.strip():
            with open(os.path.join(work, name.strip()), "w") as out:
                out.write(text)
    for number, (language, name, text) in enumerate(blocks, 1):
        if text.startswith("# not run here:") or (language == "c" and name.strip()):
            continue
        environment = dict(os.environ, LINXD_INSTANCE=f"readme-{os.getpid()}-{number}",
                           PYTHONPATH=os.path.join(build, "python"), PYTHONDONTWRITEBYTECODE="1")
        what = f"README block {number} ({language}{name})"
        path = os.path.join(work, f"block{number}.{'py' if language == 'python' else language}")
        with open(path, "w") as out:
            out.write(text)
        if language == "c":
            failure = run(what + " built", ["cc", "-std=c11", "-Wall", "-Werror", "-D_DEFAULT_SOURCE", "-Iinclude",
                                            path, "-Lbuild", "-lorvane", f"-Wl,-rpath,{build}", "-o", path + ".out"],
                          work, environment) or run(what, [path + ".out"], work, environment)
        elif language == "python":
            failure = run(what, [sys.executable, path], work, environment)
        else:
            failure = run(what, ["bash", "-euo", "pipefail", path], work, environment)
        ran += 1
        if failure:
            failures.append(failure)
    subprocess.run(["rm", "-rf", work])
    for failure in failures:
        print(failure, file=sys.stderr)
    print(f"README: {ran} blocks run, {len(failures)} failed")
    return 1 if failures or ran == 0 else 0


if __name__ == "__main__":
    sys.exit(main(os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])))
