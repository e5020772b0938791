#!/usr/bin/python3
"""tutorial_test.py PAGE VONDCTL [--update]: what docs/tutorial.md shows is what happens.

In a fresh folder, with VONDCTL's folder first on PATH, in one shell from the first block to the last: a block whose fence
says "KIND NAME" is written to the file NAME; of a block "console" each line "$ COMMAND" is run (a backslash at its end
goes on in the next line), and the lines up to the next one are what it must print, both outputs together. A line "..."
stands for any number of lines, "..." within a line for any text. Any other block is an error, so that nothing on the page
goes unchecked. With --update the page is given the true output where it differs; lines that hold "..." and still fit
stay."""
import dataclasses, difflib, os, pathlib, re, shlex, signal, subprocess, sys, tempfile
from markdown_blocks import read_blocks

TIMEOUT = 200  # seconds, for all of the page
MARK = "-- end of command --"  # printed on a line of its own behind each command's output


@dataclasses.dataclass
class Command:
    line: int  # of the page
    lines: list  # as on the page, without the prompt
    expected: list


def read_commands(block):
    commands = []
    for number, line in enumerate(block.text.splitlines(), block.line):
        if line.startswith("$ "):
            commands.append(Command(number, [line[2:]], []))
        elif not commands:
            raise ValueError(f"line {number}: output without a command")
        elif commands[-1].lines[-1].endswith("\\") and not commands[-1].expected:
            commands[-1].lines.append(line)
        else:
            commands[-1].expected.append(line)
    return commands


def pattern_of(line):
    return r"(?:.*\n)*?" if line == "..." else ".*?".join(re.escape(part) for part in line.split("...")) + r"\n"


def matches(output, expected):
    pattern = "".join(pattern_of(line) for line in expected)
    return re.fullmatch(pattern, "".join(line + "\n" for line in output)) is not None


def as_on_page(output, expected):
    """The output, with those of the page's lines that hold "..." in place of the lines that they stand for."""
    kept = [line for line in expected if line != "..." and "..." in line]
    return [next((old for old in kept if re.fullmatch(pattern_of(old), line + "\n")), line) for line in output]


def make_script(blocks, prepared):
    """One script of everything on the page, and its commands in their order."""
    script, commands = [], []
    for i, block in enumerate(blocks):
        if block.kind == "console" and not block.names:
            for command in read_commands(block):
                commands.append(command)
                # The mark must not change what "$?" is for the next command.
                script += command.lines + [f"__status=$?; printf '\\n%s\\n' {shlex.quote(MARK)}; (exit $__status)"]
        elif len(block.names) == 1:
            (prepared / str(i)).write_text(block.text)
            name = shlex.quote(block.names[0])
            script.append(f"__status=$?; install -D -m 644 {prepared}/{i} {name}; (exit $__status)")
        else:
            raise ValueError(f"line {block.line}: neither a block of commands nor a file")
    return "\n".join(script) + "\n", commands


def run_script(text, folder, vondctl):
    """The lines that each command printed."""
    script = folder / "script"
    script.write_text(text)
    home = folder / "home"
    home.mkdir()
    environment = {"PATH": f"{pathlib.Path(vondctl).parent}:/usr/bin:/bin", "HOME": str(home), "LC_ALL": "C.UTF-8"}
    environment |= {name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")}
    shell = subprocess.Popen(["/bin/bash", script], cwd=home, env=environment, stdin=subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
    try:
        output, _ = shell.communicate(timeout=TIMEOUT)
    except subprocess.TimeoutExpired:
        os.killpg(shell.pid, signal.SIGKILL)
        output, _ = shell.communicate()
        print(f"the commands took longer than {TIMEOUT} s")
    *outputs, rest = output.decode(errors="backslashreplace").split(f"\n{MARK}\n")
    if rest:
        print(f"the last command printed: {rest}")
    # A command's last newline is its own; the one before the mark is ours.
    return [text.removesuffix("\n").split("\n") if text else [] for text in outputs]


def update(page, commands, outputs):
    lines = pathlib.Path(page).read_text().splitlines()
    for command, output in reversed(list(zip(commands, outputs))):
        if not matches(output, command.expected):
            first = command.line - 1 + len(command.lines)
            lines[first:first + len(command.expected)] = as_on_page(output, command.expected)
    pathlib.Path(page).write_text("\n".join(lines) + "\n")


def main(page, vondctl, *options):
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        prepared = folder / "prepared"
        prepared.mkdir()
        script, commands = make_script(read_blocks(page), prepared)
        outputs = run_script(script, folder, vondctl)
    if options == ("--update",):
        update(page, commands, outputs)
    failures = 0
    for command, output in zip(commands, outputs):
        if not matches(output, command.expected):
            failures += 1
            print(f"{page}:{command.line}: $ {command.lines[0]}")
            print(*difflib.unified_diff(command.expected, as_on_page(output, command.expected), "the page",
                                        "what it prints", lineterm=""), sep="\n")
    if len(outputs) != len(commands):
        failures += 1
        print(f"{len(commands)} commands, of which {len(outputs)} have ended")
    print(f"{len(commands)} commands, {failures} failures")
    return 1 if failures or not commands else 0


sys.exit(main(*sys.argv[1:]))
