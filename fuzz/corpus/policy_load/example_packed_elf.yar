// Programs whose code is hidden until they run.

import "elf"
import "math"

rule Packed_Elf_Upx : packer elf
{
  meta:
    id = "ex-0101"
    action = "inform"
    severity = "medium"
    score = 40
    description = "Program packed with UPX: the loader's mark at the start and the pack header at the end"

  strings:
    $mark = "UPX!"
    $loader = "$Info: This file is packed with the UPX executable packer"

  condition:
    uint32be(0) == 0x7f454c46 and $mark in (0..512) and ($loader or $mark in (filesize - 512..filesize))
}

rule Packed_Elf_Entropy : packer elf
{
  meta:
    id = "ex-0102"
    action = "inform"
    severity = "low"
    score = 25
    description = "Program without sections whose executable segment looks like random bytes"

  condition:
    uint32be(0) == 0x7f454c46 and elf.number_of_sections == 0 and
    for any segment in elf.segments : (
      segment.type == elf.PT_LOAD and segment.flags & elf.PF_X != 0 and segment.file_size >= 4096 and
      math.entropy(segment.offset, segment.file_size) > 7.4
    )
}

rule Packed_Elf_Runs_From_Memory : packer dropper elf
{
  meta:
    id = "ex-0103"
    action = "block"
    severity = "high"
    score = 70
    description = "Small program that unpacks another one into an anonymous file and runs it from there"

  strings:
    $create = "memfd_create" fullword
    $run_fexecve = "fexecve" fullword
    $run_path = /\/proc\/(self|%d)\/fd\/%d/
    $inflate_zlib = "inflateInit2_" fullword
    $inflate_aes = "EVP_DecryptInit_ex" fullword
    $inflate_lzma = "lzma_stream_decoder" fullword

  condition:
    uint32be(0) == 0x7f454c46 and filesize < 1MB and $create and any of ($run_*) and any of ($inflate_*)
}
