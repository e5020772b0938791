// Odd things in the structure of ELF files.

import "elf"

rule Elf_Writable_Code : elf hardening
{
  meta:
    id = "ex-0501"
    action = "silent"
    severity = "low"
    score = 15
    description = "Program with a segment that can be both written and executed"

  condition:
    uint32be(0) == 0x7f454c46 and
    for any segment in elf.segments : (
      segment.type == elf.PT_LOAD and segment.flags & elf.PF_W != 0 and segment.flags & elf.PF_X != 0
    )
}

rule Elf_Library_Path_Of_Others : elf hardening
{
  meta:
    id = "ex-0502"
    action = "inform"
    severity = "medium"
    score = 35
    description = "Program that looks for its libraries in the current folder, a temporary or somebody's home folder"

  condition:
    // The entry's value is the place of the path in .dynstr: "/tmp", "/dev" and "/hom", or anything that begins with
    // neither "/" nor "$".
    uint32be(0) == 0x7f454c46 and
    for any entry in elf.dynamic : (
      (entry.type == elf.DT_RPATH or entry.type == elf.DT_RUNPATH) and
      for any section in elf.sections : (
        section.name == ".dynstr" and (
          uint32be(section.offset + entry.val) == 0x2f746d70 or
          uint32be(section.offset + entry.val) == 0x2f646576 or
          uint32be(section.offset + entry.val) == 0x2f686f6d or
          not (uint8(section.offset + entry.val) == 0x2f or uint8(section.offset + entry.val) == 0x24)
        )
      )
    )
}

rule Elf_Root_Shell_Helper : elf setuid
{
  meta:
    id = "ex-0503"
    action = "internal"
    severity = "medium"
    score = 30
    description = "Small program that changes its user and then starts a shell"

  strings:
    $user = /\x00set(re|res)?uid\x00/
    $group = /\x00set(re|res)?gid\x00/
    $start = /\x00(exec(l|le|lp|v|ve|vp|vpe)|system|posix_spawn)\x00/
    $shell = /\x00\/bin\/(ba|da)?sh\x00/

  condition:
    uint32be(0) == 0x7f454c46 and filesize < 96KB and all of them
}

rule Elf_Preload_Rootkit : elf rootkit
{
  meta:
    id = "ex-0504"
    action = "block"
    severity = "high"
    score = 80
    description = "Library that puts itself before the others and hides files or lets somebody log in"

  strings:
    $preload = "/etc/ld.so.preload"
    $next = /\x00dlsym\x00/
    $hook_readdir = /\x00readdir(64)?\x00/
    $hook_stat = /\x00(__)?[lf]?xstat(64)?\x00/
    $hook_accept = /\x00accept4?\x00/
    $hook_pam = /\x00pam_(authenticate|acct_mgmt|open_session)\x00/
    $hide_proc = "/proc/net/tcp"

  condition:
    elf.type == elf.ET_DYN and filesize < 2MB and $preload and $next and $hide_proc and 2 of ($hook_*)
}
