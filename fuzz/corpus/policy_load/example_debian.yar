// What is known to be good: an agent asks for the allow set to overrule a block.

import "elf"

rule Debian_Shell_Script : debian script
{
  meta:
    id = "ex-1001"
    action = "allow"
    severity = "inform"
    score = 5
    description = "Shell script whose header names Debian: written or adapted there"

  strings:
    $shell = /#! ?\/(usr\/)?bin\/(ba|da)?sh\b/
    $header = /\n#[^\n]{0,100}\bDebian\b/

  condition:
    filesize < 256KB and $shell at 0 and $header in (0..1024)
}

rule Elf_Built_By_Debian_Gcc : debian elf
{
  meta:
    id = "ex-1002"
    action = "allow"
    severity = "inform"
    score = 1
    stripped = false
    description = "Program that says it was built by Debian's own compiler and was not stripped"

  strings:
    $gcc = /GCC: \(Debian [0-9.]{3,12}-[0-9]{1,4}[^)]{0,12}\)/

  condition:
    uint32be(0) == 0x7f454c46 and
    for any section in elf.sections : (section.type == elf.SHT_SYMTAB) and
    for any section in elf.sections : (
      section.name == ".comment" and $gcc in (section.offset..section.offset + section.size)
    )
}
