rule A { condition: true }
rule B : t { strings: $a = "x" condition: any of (A*) and for any i in (1..#a) : ( @a[i] == A ) and not A }
