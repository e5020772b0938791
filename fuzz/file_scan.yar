// Looks into a file with every module, in conditions for which either outcome is common. `magic` is left out: it reads
// its database from disk and leaks.

import "pe"
import "elf"
import "math"
import "time"
import "console"
import "dotnet"
import "cuckoo"
import "hash"
import "macho"
import "dex"

rule PeHeader { condition: pe.is_pe and pe.checksum == pe.calculate_checksum() or pe.entry_point & 1 == 1 }

rule PeTables {
  condition: pe.number_of_imports > 0 and pe.imphash() != "" and not pe.exports("a") and not pe.imports(/a/i, /b/) or
    for any section in pe.sections : (section.raw_data_size & 1 == 1 or section.full_name contains ".text") }

rule PeRest {
  condition: for any s in pe.signatures : (s.subject contains "a" or s.not_after > 0) or pe.rich_signature.toolid(1) or
    pe.version_info["CompanyName"] contains "a" or pe.pdb_path contains "a" or
    for any r in pe.resources : (r.type & 1 == 1 or r.length > 99) or pe.section_index("a") > 0 or pe.rva_to_offset(9) > 9 }

rule ElfHeader { condition: elf.type == elf.ET_EXEC or elf.entry_point & 1 == 1 or elf.sh_offset & 1 == 1 }

rule ElfTables {
  condition: for any s in elf.sections : (s.type == elf.SHT_DYNAMIC and s.size & 1 == 1 or s.name contains ".t") or
    for any s in elf.segments : (s.flags & 1 == 1) or for any s in elf.symtab : (s.name contains "a") or
    for any s in elf.dynsym : (s.value & 1 == 1) or for any d in elf.dynamic : (d.val & 1 == 1) }

rule Dotnet {
  condition: dotnet.number_of_streams & 1 == 1 or dotnet.assembly.name contains "a" or
    for any s in dotnet.streams : (s.size & 1 == 1) or for any r in dotnet.resources : (r.length & 1 == 1) or
    for any t in dotnet.user_strings : (t contains "a") or for any g in dotnet.guids : (g contains "0") }

rule Macho {
  condition: macho.filetype == macho.MH_EXECUTE or macho.entry_point & 1 == 1 or macho.nfat_arch > 1 or
    for any s in macho.segments : (s.nsects > 0 and s.sections[0].size & 1 == 1) or
    for any f in macho.file : (f.ncmds & 1 == 1) }

rule Dex {
  condition: dex.header.file_size == filesize or dex.string_ids[0].value contains "a" or
    for any m in dex.method : (m.class_name contains "a") or dex.has_method("a") or dex.map_list.size > 1 }

rule Math {
  condition: math.entropy(0, filesize) > 4.0 or math.mode() == 0 or math.serial_correlation(0, filesize) > 0.5 or
    math.monte_carlo_pi(0, filesize) < 0.5 or math.deviation(0, filesize, math.MEAN_BYTES) > 50.0 }

rule Hash { condition: hash.md5(0, filesize) contains "00" or hash.crc32(0, filesize) & 1 == 1 }

rule Rest {
  strings: $a = { 00 [1-4] 00 ( 01 | 02 ) } $b = /[a-z]{3,9}\.(exe|dll|so)/ nocase wide ascii $c = "\x7fELF" xor
  condition: any of them and console.log("size ", filesize) and time.now() > 0 and
    not cuckoo.network.dns_lookup(/a/) and not cuckoo.sync.mutex(/a/) }
