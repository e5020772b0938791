import "pe"
import "elf"
import "math"
import "hash"
rule A { meta: id = "A" action = "block"  condition: math.in_range(math.entropy(0, filesize), 0.0, 9.0) and hash.md5(0, 5) != "" and not pe.is_pe and not defined elf.type }
