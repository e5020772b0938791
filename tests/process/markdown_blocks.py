"""The fenced blocks of a page in docs/, for tests that keep its examples true."""
import dataclasses, pathlib


@dataclasses.dataclass
class Block:
    line: int  # of its first line of text, from 1
    kind: str  # first word after the fence
    names: list  # the other words
    text: str  # with its last newline


def read_blocks(path):
    blocks, inside = [], None
    for number, line in enumerate(pathlib.Path(path).read_text().splitlines(keepends=True), 1):
        if inside is not None and line.rstrip() == "```":
            blocks.append(inside)
            inside = None
        elif inside is not None:
            inside.text += line
        elif line.startswith("```"):
            words = line[3:].split()
            inside = Block(number + 1, words[0] if words else "", words[1:], "")
    if inside is not None:
        raise ValueError(f"{path}:{inside.line - 1}: a block without an end")
    return blocks
